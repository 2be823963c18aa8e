#pragma once

#include "websocket/Transport.h"
#include "websocket/WebSocket.h"

#include <functional>
#include <memory>

namespace WebSocket
{

using OpenedCallback = std::function<void(std::shared_ptr<Connection>)>;

/// Internal to this folder; keeps Beast out of Listener.cpp. Performs the server's handshakes on a socket that was
/// accepted on `task`. `opened` gets the open connection on `task`; a failed handshake is not reported. `permit` is
/// released when the connection has ended.
void AcceptConnection(NotifyTargetTaskIF* task, Socket socket, std::shared_ptr<const ListenOptions> options,
                      std::shared_ptr<void> permit, OpenedCallback opened);

} // namespace WebSocket
