#include "runtime/CTask.h"

#include "runtime/CaughtException.h"
#include "runtime/engine/Thread.h"

#include <cstddef>
#include <pthread.h>

namespace
{

/// CTask runs URL fetches. Measured: 12 KiB for a GET, 14 KiB for a GET by TLS. getaddrinfo() without libcurl's
/// resolver threads needs 64 KiB, more for a large answer. The rest is for the caller's callback. Untouched stack costs
/// address space only.
constexpr std::size_t kStackBytes = std::size_t{256} * 1024;

} // namespace

CTask::CTask(const char* name, bool, RealtimeType, int)
    : m_name(name)
{
}

void CTask::Start()
{
    auto self = std::make_unique<std::shared_ptr<CTask>>(shared_from_this());
    pthread_detach(IL::StartThread(m_name, kStackBytes, &CTask::ThreadMain, self.get()));
    static_cast<void>(self.release()); // the thread owns it
}

void* CTask::ThreadMain(void* self)
{
    const std::unique_ptr<std::shared_ptr<CTask>> task(static_cast<std::shared_ptr<CTask>*>(self));
    const std::string& name = (*task)->m_name;
    IL::SetThreadName(name);
    try
    {
        (*task)->Body();
    }
    catch (...)
    {
        IL::LogCaughtException(name);
    }
    return nullptr;
}
