#include "tools/simulated/upnp-devices/Devices.h"

#include "runtime/TaskCheck.h"
#include "tools/simulated/upnp-devices/Description.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <sstream>
#include <utility>

namespace
{

/// Announcements of devices that start together are spread, so that at most one is sent per two milliseconds.
constexpr unsigned int kMinSpreadMs = 500;
constexpr unsigned int kSpreadMsEach = 2;

std::string GuidOf(unsigned int index)
{
    std::array<char, 40> text{};
    std::snprintf(text.data(), text.size(), "5d0e55d9-7a1c-4c5e-9b1d-%012x", index);
    return text.data();
}

} // namespace

Devices::Devices(NotifyTargetTaskIF* task, const Settings& settings)
    : Simulator(task, settings.kinds.size())
    , m_startsSilent(settings.isSilent)
    , m_random(settings.ssdp.seed)
    , m_schedule(task)
    , m_responder(task, m_schedule, settings.ssdp)
{
    m_devices.reserve(settings.kinds.size());
    for (std::size_t offset = 0; offset < settings.kinds.size(); ++offset)
    {
        Add(task, settings, offset);
    }
    m_actions["silence"] = ForEach([this](std::size_t device, const Pending&) { Leave(device, false); });
    m_actions["goodbye"] = ForEach([this](std::size_t device, const Pending&) { Leave(device, true); });
    m_actions["return"] = [this](const Range& range, const Pending&, std::string& error)
    { return Return(range, error); };
}

Devices::~Devices() = default;

void Devices::Add(NotifyTargetTaskIF* task, const Settings& settings, std::size_t offset)
{
    const Kind kind = settings.kinds[offset];
    const auto distance = static_cast<unsigned int>(offset);
    const unsigned int index = settings.firstIndex + distance;
    Identity identity =
        MakeIdentity(index, GuidOf(index), Name(kind) + (" " + std::to_string(index)), settings.firstIpv4 + distance);
    if (offset == 0)
    {
        identity.guid = settings.guid.empty() ? identity.guid : settings.guid;
        identity.name = settings.name.empty() ? identity.name : settings.name;
    }
    Device device;
    if (kind != Kind::CLOSED_PORT)
    {
        device.http = std::make_unique<FakeHttpServer>(task, identity.address, settings.port,
                                                       [this, kind, identity](const std::string& path)
                                                       {
                                                           ++m_descriptions;
                                                           return AnswerOf(kind, identity, path);
                                                       });
    }
    if (settings.hasGateways && HasGateway(kind))
    {
        device.gateway =
            std::make_unique<SimulatedGateway>(task, identity.guid, identity.address, settings.gatewayPort, m_requests);
        device.gateway->SetRecord(InfoRecord(identity));
    }
    m_responder.Add(kind, identity, settings.port);
    m_devices.push_back(std::move(device));
}

bool Devices::Start(std::string& error)
{
    TASK_CHECK(m_task);
    return m_responder.Open(error) && (m_startsSilent || Return({0, m_count}, error));
}

void Devices::Leave(std::size_t device, bool saysGoodbye)
{
    if (m_responder.IsSilent(device))
    {
        return;
    }
    if (saysGoodbye)
    {
        m_responder.SayGoodbye(device);
    }
    m_responder.Silence(device);
    if (m_devices[device].http)
    {
        m_devices[device].http->Close();
    }
    if (m_devices[device].gateway)
    {
        m_devices[device].gateway->Close();
    }
}

bool Devices::Return(const Range& range, std::string& error)
{
    const unsigned int spread =
        std::max(kMinSpreadMs, static_cast<unsigned int>(range.end - range.begin) * kSpreadMsEach);
    for (std::size_t device = range.begin; device < range.end; ++device)
    {
        const Device& returning = m_devices[device];
        if ((returning.http && !returning.http->Listen(error)) ||
            (returning.gateway && !returning.gateway->Listen(error)))
        {
            return false;
        }
        if (m_responder.IsSilent(device))
        {
            m_responder.Announce(device, static_cast<unsigned int>(m_random.Below(spread)));
        }
    }
    return true;
}

std::string Devices::Stats() const
{
    std::size_t present = 0;
    std::size_t connections = 0;
    for (std::size_t device = 0; device < m_devices.size(); ++device)
    {
        present += m_responder.IsSilent(device) ? 0 : 1;
        connections += m_devices[device].http ? m_devices[device].http->Connections() : 0;
        connections += m_devices[device].gateway ? m_devices[device].gateway->Connections() : 0;
    }
    const SsdpResponder::Counts& counts = m_responder.GetCounts();
    std::ostringstream line;
    line << "devices=" << m_devices.size() << " present=" << present << " connections=" << connections
         << " descriptions=" << m_descriptions << " requests=" << m_requests << " searches=" << counts.searches
         << " answers=" << counts.answers << " notifies=" << counts.notifies;
    return line.str();
}
