#include "tools/portico-gateway/MdnsLookup.h"

#include "runtime/Task.h"
#include "runtime/TaskCheck.h"
#include "tools/portico-gateway/MdnsWorker.h"

#include <utility>

namespace Gateway
{

MdnsLookup::MdnsLookup(NotifyTargetTaskIF* task)
    : m_task(task)
{
}

MdnsLookup::~MdnsLookup()
{
    if (m_worker == nullptr)
    {
        return;
    }
    IL::BreakThread(
        [worker = m_worker, task = m_workerTask]
        {
            worker->Stop();
            IL::StopTask(task);
        },
        m_workerTask);
}

void MdnsLookup::Find(const std::string& guid, AddressesCallback callback)
{
    TASK_CHECK(m_task);
    if (m_worker == nullptr)
    {
        m_workerTask = IL::CreateTask("PorticoGatewayMdns", "");
        m_worker = std::make_shared<MdnsWorker>(m_workerTask);
    }
    const auto answer = m_liveness.OnTask<std::vector<std::string>>(m_task, std::move(callback));
    IL::BreakThread([worker = m_worker, guid, answer] { worker->Find(guid, answer); }, m_workerTask);
}

} // namespace Gateway
