#include "tools/portico-gateway/Heartbeat.h"
#include "runtime/TaskCheck.h"

#include <utility>

namespace Gateway
{

Heartbeat::Heartbeat(const GatewayContext& context, Check check, IsReached isReached, Report report)
    : m_context(context)
    , m_check(std::move(check))
    , m_isReached(std::move(isReached))
    , m_report(std::move(report))
    , m_period("PorticoGatewayCheckPeriod", context.task)
    , m_limit("PorticoGatewayCheckLimit", context.task)
{
}

Heartbeat::~Heartbeat() = default;

void Heartbeat::CheckNow()
{
    TASK_CHECK(m_context.task);
    if (m_isUnderWay)
    {
        m_isDue = true;
        return;
    }
    m_isDue = false;
    m_isUnderWay = true;
    const unsigned int number = ++m_number;
    m_period.PostIn(static_cast<unsigned int>(m_context.timings.checkPeriod.count()), [this] { CheckNow(); });
    m_limit.PostIn(static_cast<unsigned int>(m_context.timings.checkLimit.count()),
                   [this, number] { HandleLimit(number); });
    m_check(m_liveness.Guard(
        [this, number](const JsonRpc::Answer& answer)
        {
            const bool isFailure = answer.code == JsonRpc::NOT_SERVED || answer.code == JsonRpc::UNREACHABLE ||
                                   answer.code == JsonRpc::NO_ANSWER;
            HandleResult(number, !(answer.IsError() && isFailure));
        }));
}

void Heartbeat::HandleOwnList()
{
    TASK_CHECK(m_context.task);
    m_isUnderWay = false;
    ++m_number;
    CheckNow();
}

void Heartbeat::HandleLimit(unsigned int check)
{
    TASK_CHECK(m_context.task);
    // While the product is connected, its service may be busy with hundreds of requests: requestLimit ends the check.
    if (!m_isReached())
    {
        HandleResult(check, false);
    }
}

void Heartbeat::HandleResult(unsigned int check, bool isPassed)
{
    TASK_CHECK(m_context.task);
    if (!m_isUnderWay || check != m_number)
    {
        return;
    }
    m_isUnderWay = false;
    m_limit.Cancel();
    if (m_isDue)
    {
        m_period.PostIn(0, [this] { CheckNow(); });
    }
    if (!m_context.hasOwnList())
    {
        return;
    }
    const Status status = isPassed ? ONLINE : OFFLINE;
    if (m_reported != status || status == OFFLINE)
    {
        m_reported = status;
        m_report(status);
    }
}

} // namespace Gateway
