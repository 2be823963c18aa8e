#pragma once

#include "runtime/AsyncCallback.h"
#include <PorticoClientIF.h>

#include <memory>
#include <optional>
#include <string>

namespace Portico
{

/// (path, error record): the gateway refused a subscription to `path`, or the connection if `path` is empty.
using RefusalCallback = AsyncCallback<const std::string, const std::string>;

/// Optional settings. The service uses the defaults.
struct CommonClientCreationInfo
{
    /// Called at the first of consecutive refused connections, before the connect callback gets false. The client
    /// retries.
    std::optional<RefusalCallback> onRefused = std::nullopt;
};

/// True: the connection is established. False: the connection has ended, or attempts fail, which is reported once.
/// Requests that fail because of that end afterwards.
using ConnectCallback = AsyncCallback<const bool>;
/// (guid, status): the gateway's status of the product that the connection was opened for.
using HeartbeatCallback = AsyncCallback<const std::string, const PORTICO_CLIENT_ERRORS>;

/// Replaces the whole client library in tests; null in the product.
class PorticoClientFactoryIF
{
public:
    virtual ~PorticoClientFactoryIF() = default;
    virtual std::shared_ptr<PorticoClientIF> Create(const std::string& serviceName, const std::string& host, int port,
                                                    const std::string& subProtocol, const std::string& guid,
                                                    ConnectCallback* connectCallback,
                                                    const std::optional<HeartbeatCallback>& heartbeatCallback,
                                                    const CommonClientCreationInfo& info) = 0;
};

/// Creates gateway connections. All clients of a process share one I/O thread.
///
/// Reconnecting: pauses grow from 0.1 s to 5 s, with jitter.
/// Requests: a request waits at most 10 s for the connection attempt in progress, and at most 15 s for its answer.
/// Then, and when the connection ends, it ends in its error callback with code 503 or 504.
/// Serving: a path that another client serves (409) is requested again with the same pauses. The answer of a handler
/// is dropped if the connection of its request has ended.
/// Notifications: the last notification of each path is held back until the gateway has accepted the path, and while
/// 256 KiB are queued for a gateway that reads too slowly.
/// Size: a message over 4 MiB is not sent, since the gateway would close the connection. A request or an answer ends
/// in error 413 instead, a notification is dropped with a log line.
class PorticoClient
{
public:
    /// Returns at once, with or without a gateway. Connects and reconnects by itself. `subProtocol` is "tarsier" or
    /// "tarsier_mTLS". `guid` is the product to reach, empty for this product. `connectCallback` may be null; it is
    /// copied.
    static std::shared_ptr<PorticoClientIF> Create(std::string serviceName, const std::string& host, int port,
                                                   const std::string& subProtocol, const std::string& guid,
                                                   ConnectCallback* connectCallback,
                                                   std::optional<HeartbeatCallback> heartbeatCallback,
                                                   const CommonClientCreationInfo& info);

    /// Process-wide, for tests. Null restores the library's own Create(). Safe from any thread.
    static void SetFactoryOverride(PorticoClientFactoryIF* factory);
};

} // namespace Portico
