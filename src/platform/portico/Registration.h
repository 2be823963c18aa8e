#pragma once

#include "base/Backoff.h"
#include "platform/portico/RevocableCallback.h"
#include <PorticoClientIF.h>

#include <memory>
#include <string>

class MessageTimer;

namespace Portico
{

/// One path that a client serves or subscribes to. Sent again at each connection.
/// Task: the I/O task. The callbacks are safe from any thread.
struct Registration : std::enable_shared_from_this<Registration>
{
    using RequestCallback = RevocableCallback<std::string, PorticoClientIF::Response, PorticoClientIF::Response>;
    using NotifyCallback = RevocableCallback<std::string>;

    std::shared_ptr<RequestCallback> served;      ///< set: a served path
    std::shared_ptr<NotifyCallback> subscription; ///< set: a subscription
    std::string verb;                             ///< of a served path, "get" to "delete"
    std::string path;
    int scope = 0;
    std::string version = "1.0"; ///< JSON text
    std::string label;

    bool isConfirmed = false; ///< the gateway has accepted `serve` on this connection
    Backoff backoff;          ///< between attempts while another client serves the path
    std::unique_ptr<MessageTimer> retry;

    RevocableCallbackIF* Owner() const
    {
        return served ? static_cast<RevocableCallbackIF*>(served.get()) : subscription.get();
    }
};

} // namespace Portico
