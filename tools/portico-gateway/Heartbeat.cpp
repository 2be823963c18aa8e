#include "tools/portico-gateway/Heartbeat.h"

#include <utility>

namespace Gateway
{

Heartbeat::Heartbeat(const Surroundings& surroundings, Check check, IsReached isReached, Tell tell)
    : m_surroundings(surroundings)
    , m_check(std::move(check))
    , m_isReached(std::move(isReached))
    , m_tell(std::move(tell))
    , m_period("PorticoGatewayCheckPeriod", surroundings.task)
    , m_limit("PorticoGatewayCheckLimit", surroundings.task)
{
}

Heartbeat::~Heartbeat() = default;

void Heartbeat::CheckNow()
{
    if (m_isUnderWay)
    {
        m_isDue = true;
        return;
    }
    m_isDue = false;
    m_isUnderWay = true;
    const unsigned int number = ++m_number;
    m_period.PostIn(static_cast<unsigned int>(m_surroundings.timings.checkPeriod.count()), [this] { CheckNow(); });
    m_limit.PostIn(static_cast<unsigned int>(m_surroundings.timings.checkLimit.count()),
                   [this, number] { HandleLimit(number); });
    m_check(
        [this, number, alive = std::weak_ptr(m_alive)](const Answer& answer)
        {
            if (alive.lock())
            {
                const bool isFailure =
                    answer.code == NOT_SERVED || answer.code == UNREACHABLE || answer.code == NO_ANSWER;
                HandleResult(number, !(answer.IsError() && isFailure));
            }
        });
}

void Heartbeat::HandleOwnList()
{
    m_isUnderWay = false;
    ++m_number;
    CheckNow();
}

void Heartbeat::HandleLimit(unsigned int check)
{
    // A service whose connection stands may be busy with the answers of hundreds of others: the question ends by
    // itself.
    if (!m_isReached())
    {
        HandleResult(check, false);
    }
}

void Heartbeat::HandleResult(unsigned int check, bool isPassed)
{
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
    if (!m_surroundings.hasOwnList())
    {
        return;
    }
    const Status status = isPassed ? ONLINE : OFFLINE;
    if (m_told != status || status == OFFLINE)
    {
        m_told = status;
        m_tell(status);
    }
}

} // namespace Gateway
