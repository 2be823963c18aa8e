#include "bench/publish/StubProducts.h"

#include <ProtoToMarkup.h>

/// A fake product: sends its information only as a notification and never answers a GET.
class StubProducts::Product final : public PorticoClientIF
{
public:
    void Answer(const std::string& body)
    {
        Callback<std::string> listener;
        {
            const std::lock_guard lock(m_mutex);
            listener = m_listener;
        }
        listener(body);
    }

    CallbackConnection RegisterGet(const std::string&, const GetHandler&, const Portico::EndpointScope&, const double&,
                                   const std::string&, const int&) override
    {
        return {};
    }
    CallbackConnection RegisterBody(Portico::Verb, const std::string&, const BodyHandler&,
                                    const Portico::EndpointScope&, const double&, const std::string&,
                                    const int&) override
    {
        return {};
    }
    CallbackConnection RegisterNotificationText(const std::string&, const Callback<std::string>& callback,
                                                const Portico::EndpointScope&, const double&, const int&) override
    {
        const std::lock_guard lock(m_mutex);
        m_listener = callback;
        return {};
    }
    CallbackConnection SendText(Portico::Verb, const std::string&, const std::string&,
                                const Callback<std::string, std::string>&, const double&) override
    {
        return {};
    }
    void SendNotification(const std::string&, const google::protobuf::Message&, const double&) override {}
    void Shutdown() override {}

private:
    std::mutex m_mutex;
    Callback<std::string> m_listener;
};

StubProducts::StubProducts(int gatewayPort)
    : m_gatewayPort(gatewayPort)
{
    Portico::PorticoClient::SetFactoryOverride(this);
}

StubProducts::~StubProducts()
{
    Portico::PorticoClient::SetFactoryOverride(nullptr);
}

void StubProducts::Answer(const Sonarix::ProductInfo& info)
{
    std::shared_ptr<Product> product;
    {
        const std::lock_guard lock(m_mutex);
        product = m_products[info.guid()].lock();
    }
    if (product)
    {
        product->Answer(ProtoToMarkup::ToJson(info, true, false, false));
    }
}

std::shared_ptr<PorticoClientIF>
StubProducts::Create(const std::string& serviceName, const std::string& host, int, const std::string& subProtocol,
                     const std::string& guid, Portico::ConnectCallback* connectCallback,
                     const std::optional<Portico::HeartbeatCallback>& heartbeatCallback,
                     const Portico::CommonClientCreationInfo& info)
{
    if (!guid.empty())
    {
        auto product = std::make_shared<Product>();
        const std::lock_guard lock(m_mutex);
        m_products[guid] = product;
        return product;
    }
    // The own clients are created before the first report, so no other thread is in this function now.
    Portico::PorticoClient::SetFactoryOverride(nullptr);
    auto client = Portico::PorticoClient::Create(serviceName, host, m_gatewayPort, subProtocol, guid, connectCallback,
                                                 heartbeatCallback, info);
    Portico::PorticoClient::SetFactoryOverride(this);
    return client;
}
