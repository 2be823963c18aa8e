#pragma once

#include "runtime/AsyncCallback.h"
#include "runtime/ipc/NetworkAddress.h"

#include <memory>
#include <string>

class NotifyTargetTaskIF;

namespace Network
{
class ConnectorSocket;
}

namespace IL
{

/// Accepts the connections of one local service. Its socket is served by the task that it was made for; every
/// operation may be called from any thread and returns at once. Its end stops it.
/// When descriptors or memory run out, accepting pauses and comes back, with one line of level 2: clients wait in the
/// kernel's queue, or find it full.
class ServerListenerIF
{
public:
    virtual ~ServerListenerIF() = default;

    /// Binds the socket, mode 0660, and returns its address. A socket file that nobody listens on is replaced. Returns
    /// an empty address, with one line of level 1, where somebody does, where the file is none of a socket, or the path
    /// is too long for one. Once.
    virtual Network::Address Listen(const Network::Address& address,
                                    const AsyncCallback<std::shared_ptr<Network::ConnectorSocket>>& onAccept) = 0;

    /// No socket is accepted any more; one may be on its way to `onAccept` still. The socket file goes. Twice is
    /// harmless, and so is before Listen().
    virtual void Stop() = 0;
};

/// `name` is its log channel: one line of level 3 tells who connected.
std::shared_ptr<ServerListenerIF> CreateServerListener(const std::string& name, NotifyTargetTaskIF* task);

} // namespace IL
