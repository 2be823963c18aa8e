#pragma once

#include "runtime/Timers.h"
#include "tools/portico-gateway/PendingRequests.h"
#include "tools/portico-gateway/Surroundings.h"

#include <functional>
#include <memory>
#include <optional>

namespace Gateway
{

/// Checks one opened product by its own answer, again and again, and tells when that is news: at the first result,
/// at each change and at each check that fails; nothing before the own service has served its list.
/// Task: everything on the gateway's. Owner: the client's connection; destroyed, it calls nobody.
class Heartbeat final
{
public:
    enum Status : int
    {
        ONLINE = 1040,
        OFFLINE = 1041,
    };
    /// One check: the question is sent, and the answer comes now or later; never, where the product is not reached.
    using Check = std::function<void(AnswerCallback)>;
    using IsReached = std::function<bool()>; ///< the question of the check has gone to the product
    using Tell = std::function<void(Status)>;

    Heartbeat(const Surroundings& surroundings, Check check, IsReached isReached, Tell tell);
    ~Heartbeat();
    Heartbeat(const Heartbeat&) = delete;
    Heartbeat& operator=(const Heartbeat&) = delete;

    /// Begins a check, after the one that is under way. The first call starts the regular ones.
    void CheckNow();
    /// The own service has served its list: a check that went without it does not count, and another begins.
    void HandleOwnList();

private:
    void HandleLimit(unsigned int check);
    void HandleResult(unsigned int check, bool isPassed);

    const Surroundings& m_surroundings;
    const Check m_check;
    const IsReached m_isReached;
    const Tell m_tell;
    unsigned int m_number = 0; ///< of the last check
    bool m_isUnderWay = false;
    bool m_isDue = false; ///< the next one, while one is under way
    std::optional<Status> m_told;
    MessageTimer m_period;
    MessageTimer m_limit;
    const std::shared_ptr<bool> m_alive = std::make_shared<bool>(true);
};

} // namespace Gateway
