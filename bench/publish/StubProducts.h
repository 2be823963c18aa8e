#pragma once

#include "schemas/Sonarix.pb.h"
#include <PorticoClient.h>
#include <PorticoClientIF.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

/// Fakes the other products while it exists: a connection with a guid gets a fake product, a connection without a guid
/// is a real one, to the gateway at `gatewayPort`. Safe from any thread.
class StubProducts final : public Portico::PorticoClientFactoryIF
{
public:
    explicit StubProducts(int gatewayPort);
    ~StubProducts() override;

    /// The product notifies `info` on /sonarix/info. Does nothing if there is no connection to it.
    void Answer(const Sonarix::ProductInfo& info);

    std::shared_ptr<PorticoClientIF> Create(const std::string& serviceName, const std::string& host, int port,
                                            const std::string& subProtocol, const std::string& guid,
                                            Portico::ConnectCallback* connectCallback,
                                            const std::optional<Portico::HeartbeatCallback>& heartbeatCallback,
                                            const Portico::CommonClientCreationInfo& info) override;

private:
    class Product;

    const int m_gatewayPort;
    std::mutex m_mutex;
    std::map<std::string, std::weak_ptr<Product>> m_products;
};
