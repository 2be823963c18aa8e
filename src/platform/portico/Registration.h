#pragma once

#include "base/Backoff.h"
#include "platform/portico/Slot.h"
#include <PorticoClientIF.h>

#include <memory>
#include <string>

class MessageTimer;

namespace Portico
{

/// One path that a client serves, or one that it listens to; done again at each connection. On the I/O task,
/// but for the slot.
struct Registration
{
    using ServeSlot = Slot<std::string, PorticoClientIF::Response, PorticoClientIF::Response>;
    using NotifySlot = Slot<std::string>;

    std::shared_ptr<ServeSlot> serve;   ///< set: a served path
    std::shared_ptr<NotifySlot> listen; ///< set: a subscription
    std::string verb;                   ///< of a served path, "get" to "delete"
    std::string path;
    int scope = 0;
    double version = 1.0;
    std::string label;

    bool isConfirmed = false; ///< the gateway of this connection has agreed to serve it
    Backoff backoff;          ///< between attempts while the path is taken
    std::unique_ptr<MessageTimer> retry;

    SlotIF* Owner() const
    {
        return serve ? static_cast<SlotIF*>(serve.get()) : listen.get();
    }
};

} // namespace Portico
