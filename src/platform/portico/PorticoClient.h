#pragma once

#include "runtime/AsyncCallback.h"
#include <PorticoClientIF.h>

#include <memory>
#include <optional>
#include <string>

namespace Portico
{

/// (path, error body): the gateway refused a subscription to `path`, or, where that is empty, the connection itself.
using RefusalCallback = AsyncCallback<const std::string, const std::string>;

/// Settings that all clients share; the defaults are what the service uses.
struct CommonClientCreationInfo
{
    /// A refused connection is told once until one stands, before the connect callback's false; the client tries on.
    std::optional<RefusalCallback> onRefused = std::nullopt;
};

/// Tells on a task that the connection stands (true), or that it went or could not be made (false, once for each);
/// requests that end because of that end afterwards.
using ConnectCallback = AsyncCallback<const bool>;
/// (guid, status): what the gateway finds out about the product that the connection was opened for.
using HeartbeatCallback = AsyncCallback<const std::string, const PORTICO_CLIENT_ERRORS>;

/// Substitutes the client library as a whole; null in the product.
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

/// Makes gateway connections. All clients of a process share one I/O thread.
///
/// What holds for each: pauses between attempts grow from 0.1 s to 5 s, with jitter. A request waits for the
/// connection until the attempt under way fails, at most 10 s, and for its answer at most 15 s; then, and when the
/// connection goes, it ends in its error callback with code 503 or 504. A path that the gateway still sees with
/// somebody else (409) is asked for again with the same pauses. A notification that cannot go out yet is held, the
/// last one of each path, until the gateway has agreed to serve the path, or, where 256 KiB wait for a gateway that
/// does not keep up, until these have gone out. The answer of a handler is dropped where the connection of its request
/// has gone. A message of more than 4 MiB is not sent, since the gateway would end the
/// connection: the request or the answer ends in an error (413) instead, of a notification a line of log remains.
class PorticoClient
{
public:
    /// Returns at once, whether there is a gateway or not; connects, and reconnects, by itself.
    /// `subProtocol` "tarsier" or "tarsier_mTLS"; `guid` the product to be reached, empty for this one.
    /// `connectCallback` may be null; it is copied.
    static std::shared_ptr<PorticoClientIF> Create(std::string serviceName, const std::string& host, int port,
                                                   const std::string& subProtocol, const std::string& guid,
                                                   ConnectCallback* connectCallback,
                                                   std::optional<HeartbeatCallback> heartbeatCallback,
                                                   const CommonClientCreationInfo& info);

    /// Process-wide; null puts the library's own back. Before the first Create.
    static void SetFactoryOverride(PorticoClientFactoryIF* factory);
};

} // namespace Portico
