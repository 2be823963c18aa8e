#pragma once

#include "jsonrpc/PendingRequests.h"
#include "runtime/Liveness.h"
#include "runtime/Timers.h"
#include "tools/portico-gateway/GatewayContext.h"

#include <functional>
#include <optional>

namespace Gateway
{

/// Checks one opened product periodically by a request and reports its status: at the first result, at each change
/// and at each failed check. Reports nothing before this product's service has served its list.
/// Task: everything on the gateway's task. Owner: the client's connection. No callback comes after destruction.
class Heartbeat final
{
public:
    enum Status : int
    {
        ONLINE = 1040,
        OFFLINE = 1041,
    };
    /// Sends the request of one check. The callback gets the answer now or later, or never if the product is not
    /// reached.
    using Check = std::function<void(JsonRpc::AnswerCallback)>;
    using IsReached = std::function<bool()>; ///< the product is connected, so the request has been sent
    using Report = std::function<void(Status)>;

    Heartbeat(const GatewayContext& context, Check check, IsReached isReached, Report report);
    ~Heartbeat();
    Heartbeat(const Heartbeat&) = delete;
    Heartbeat& operator=(const Heartbeat&) = delete;

    /// Starts a check now, or after the one in progress. The first call also starts the periodic checks.
    void CheckNow();
    /// Called when this product's service begins to serve its list: a new check replaces one that began before.
    void HandleOwnList();

private:
    void HandleLimit(unsigned int check);
    void HandleResult(unsigned int check, bool isPassed);

    const GatewayContext& m_context;
    const Check m_check;
    const IsReached m_isReached;
    const Report m_report;
    unsigned int m_number = 0; ///< of the last check
    bool m_isUnderWay = false;
    bool m_isDue = false; ///< another check starts after the one in progress
    std::optional<Status> m_reported;
    MessageTimer m_period;
    MessageTimer m_limit;
    Liveness m_liveness;
};

} // namespace Gateway
