#include "tools/simulated/crowd/Crowd.h"

#include "runtime/TaskCheck.h"

#include <algorithm>
#include <sstream>
#include <utility>

namespace
{

/// Announcements of products that start together are spread, so that at most one is sent per two milliseconds.
constexpr unsigned int kMinSpreadMs = 1000;
constexpr unsigned int kSpreadMsEach = 2;

/// The guid is also the host name.
std::string GuidOf(unsigned int index)
{
    const std::string digits = std::to_string(index);
    return "crowd-" + std::string(5 - std::min<std::size_t>(5, digits.size()), '0') + digits;
}

} // namespace

Crowd::Crowd(NotifyTargetTaskIF* task, const Settings& settings)
    : Simulator(task, settings.count)
    , m_random(settings.mdns.seed)
    , m_schedule(task)
    , m_responder(task, m_schedule, settings.mdns)
{
    m_products.reserve(settings.count);
    for (unsigned int offset = 0; offset < settings.count; ++offset)
    {
        Product product;
        const unsigned int index = settings.firstIndex + offset;
        product.identity = MakeIdentity(index, GuidOf(index), settings.namePrefix + " " + std::to_string(index),
                                        settings.firstIpv4 + offset);
        product.baseName = product.identity.name;
        product.gateway = std::make_unique<SimulatedGateway>(task, product.identity.guid, product.identity.address,
                                                             settings.mdns.port, m_requests);
        product.gateway->SetRecord(InfoRecord(product.identity));
        m_responder.Add(product.identity);
        m_products.push_back(std::move(product));
    }
    m_actions["silence"] = ForEach(
        [this](std::size_t product, const Pending&)
        {
            m_responder.Silence(product);
            m_products[product].gateway->Close();
        });
    m_actions["goodbye"] = ForEach(
        [this](std::size_t product, const Pending& pending)
        { m_responder.SayGoodbye(product, [this, product, pending] { m_products[product].gateway->Close(); }); });
    m_actions["return"] = [this](const Range& range, const Pending&, std::string& error)
    { return Return(range, error); };
    m_actions["rename"] = ForEach([this](std::size_t product, const Pending& pending) { Rename(product, pending); });
}

bool Crowd::Start(std::string& error)
{
    TASK_CHECK(m_task);
    return m_responder.Open(error) && Return({0, m_count}, error);
}

bool Crowd::Return(const Range& range, std::string& error)
{
    const auto count = static_cast<unsigned int>(range.end - range.begin);
    const unsigned int spread = std::max(kMinSpreadMs, count * kSpreadMsEach);
    for (std::size_t product = range.begin; product < range.end; ++product)
    {
        if (!m_products[product].gateway->Listen(error))
        {
            return false;
        }
        if (m_responder.IsSilent(product))
        {
            m_responder.Announce(product, static_cast<unsigned int>(m_random.Below(spread)));
        }
    }
    return true;
}

void Crowd::Rename(std::size_t product, const Pending& pending)
{
    if (m_responder.IsSilent(product))
    {
        TakeNextName(product);
        return;
    }
    m_responder.SayGoodbye(product,
                           [this, product, pending]
                           {
                               TakeNextName(product);
                               if (m_products[product].gateway->IsListening())
                               {
                                   m_responder.Announce(product, 0);
                               }
                           });
}

void Crowd::TakeNextName(std::size_t product)
{
    Product& renamed = m_products[product];
    renamed.identity.name = renamed.baseName + ", " + std::to_string(++renamed.names);
    renamed.gateway->SetRecord(InfoRecord(renamed.identity));
    m_responder.Rename(product, renamed.identity.name);
}

std::string Crowd::Stats() const
{
    std::size_t online = 0;
    std::size_t connections = 0;
    for (const Product& product : m_products)
    {
        online += product.gateway->IsListening() ? 1 : 0;
        connections += product.gateway->Connections();
    }
    const MdnsResponder::Counts& counts = m_responder.GetCounts();
    std::ostringstream line;
    line << "products=" << m_products.size() << " online=" << online << " connections=" << connections
         << " requests=" << m_requests << " queries=" << counts.queries << " packets=" << counts.packets;
    return line.str();
}
