#pragma once

#include "AsyncCallback.h"
#include "PorticoClientIF.h"

#include <memory>
#include <optional>
#include <string>

namespace Portico
{

/// Settings that all clients share; the defaults are what the service uses.
struct CommonClientCreationInfo
{
};

/// Tells on a task that the connection stands (true) or went (false).
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
