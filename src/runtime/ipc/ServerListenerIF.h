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

/// Accepts the connections of one local service.
/// Task: accepts on the task given to CreateServerListener(). Operations may be called from any thread and return at
/// once. The destructor calls Stop().
/// If descriptors or memory run out, accepting pauses for 250 ms at a time, with one log line of level 2 per minute.
/// New clients wait in the kernel's queue meanwhile; if that is full, their connect() fails.
class ServerListenerIF
{
public:
    virtual ~ServerListenerIF() = default;

    /// Binds the socket with mode 0660 and returns its address. Replaces a socket file without a listening process.
    /// Returns an empty address, with one log line of level 1, if another process listens there, the file is not a
    /// socket, the path is too long, or this object listens already.
    virtual Network::Address Listen(const Network::Address& address,
                                    const AsyncCallback<std::shared_ptr<Network::ConnectorSocket>>& onAccept) = 0;

    /// Stops accepting and removes the socket file. A socket accepted before may still be passed to `onAccept`.
    /// Harmless if called twice or before Listen().
    virtual void Stop() = 0;
};

/// `name` is the listener's log channel. Each accepted connection is one line of level 3 with its peer.
std::shared_ptr<ServerListenerIF> CreateServerListener(const std::string& name, NotifyTargetTaskIF* task);

} // namespace IL
