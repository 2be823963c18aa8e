#include "tools/simulated/crowd/Crowd.h"

#include "runtime/TaskCheck.h"

#include <algorithm>
#include <ctime>
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

/// Calls `done` when the last copy of the pointer is destroyed.
std::shared_ptr<void> WhenAllAreDone(const std::function<void()>& done)
{
    return {nullptr, [done](void*) { done(); }};
}

} // namespace

Crowd::Crowd(NotifyTargetTaskIF* task, const Settings& settings)
    : m_task(task)
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
}

bool Crowd::Start(std::string& error)
{
    TASK_CHECK(m_task);
    return m_responder.Open(error) && Return({"return", 0, m_products.size()}, error);
}

void Crowd::Run(const std::string& command, const Answer& answer)
{
    TASK_CHECK(m_task);
    if (command == "stats")
    {
        answer(Stats());
        return;
    }
    Range range;
    std::string error;
    const bool isRange = range.Parse(command, m_products.size(), error);
    const std::string& verb = range.verb;
    const bool isVerb = verb == "silence" || verb == "goodbye" || verb == "return" || verb == "rename";
    if (!isVerb || !isRange)
    {
        answer(isVerb ? error : "error unknown command " + verb);
        return;
    }
    const std::string ok = "ok " + verb + " " + std::to_string(range.end - range.begin);
    const auto done = [answer, ok] { answer(ok); };
    if (verb == "goodbye")
    {
        SayGoodbye(range, done);
    }
    else if (verb == "rename")
    {
        Rename(range, done);
    }
    else if (verb == "silence")
    {
        for (std::size_t product = range.begin; product < range.end; ++product)
        {
            Silence(product);
        }
        done();
    }
    else
    {
        answer(Return(range, error) ? ok : "error " + error);
    }
}

void Crowd::Silence(std::size_t product)
{
    m_responder.Silence(product);
    m_products[product].gateway->Close();
}

void Crowd::SayGoodbye(const Range& range, const std::function<void()>& done)
{
    const std::shared_ptr<void> all = WhenAllAreDone(done);
    for (std::size_t product = range.begin; product < range.end; ++product)
    {
        m_responder.SayGoodbye(product, [this, product, all] { m_products[product].gateway->Close(); });
    }
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

void Crowd::Rename(const Range& range, const std::function<void()>& done)
{
    const std::shared_ptr<void> all = WhenAllAreDone(done);
    for (std::size_t product = range.begin; product < range.end; ++product)
    {
        if (m_responder.IsSilent(product))
        {
            TakeNextName(product);
            continue;
        }
        m_responder.SayGoodbye(product,
                               [this, product, all]
                               {
                                   TakeNextName(product);
                                   if (m_products[product].gateway->IsListening())
                                   {
                                       m_responder.Announce(product, 0);
                                   }
                               });
    }
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
    const std::clock_t cpuMs = std::clock() / (CLOCKS_PER_SEC / 1000);
    std::ostringstream line;
    line << "ok products=" << m_products.size() << " online=" << online << " connections=" << connections
         << " requests=" << m_requests << " queries=" << counts.queries << " packets=" << counts.packets
         << " cpu_ms=" << cpuMs;
    return line.str();
}
