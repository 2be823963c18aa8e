#pragma once

#include "schemas/Sonarix.pb.h"
#include <PorticoClient.h>
#include <PorticoClientIF.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

/// The other products: a connection opened with a guid gets a played product, one without is a real one, to the
/// gateway at the port given. In force from construction to end. Safe from any thread.
class StubProducts final : public Portico::PorticoClientFactoryIF
{
public:
    explicit StubProducts(int gatewayPort);
    ~StubProducts() override;

    /// The product tells of itself, as a change of /sonarix/info. Nothing happens where nobody has connected to it.
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
