#include "tools/simulated/upnp-devices/Devices.h"

#include "runtime/TaskCheck.h"
#include "tools/simulated/upnp-devices/Description.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
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
    : m_task(task)
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
    return m_responder.Open(error) && (m_startsSilent || Return(0, m_devices.size(), error));
}

void Devices::Run(const std::string& command, const Answer& answer)
{
    TASK_CHECK(m_task);
    if (command == "stats")
    {
        answer(Stats());
        return;
    }
    RangeCommand range;
    std::string error;
    const bool isRange = range.Parse(command, m_devices.size(), error);
    const std::string ok = "ok " + range.verb + " " + std::to_string(range.end - range.begin);
    if (range.verb != "silence" && range.verb != "goodbye" && range.verb != "return")
    {
        answer("error unknown command " + range.verb);
    }
    else if (!isRange)
    {
        answer(error);
    }
    else if (range.verb == "return")
    {
        answer(Return(range.begin, range.end, error) ? ok : "error " + error);
    }
    else
    {
        for (std::size_t device = range.begin; device < range.end; ++device)
        {
            Leave(device, range.verb == "goodbye");
        }
        answer(ok);
    }
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

bool Devices::Return(std::size_t begin, std::size_t end, std::string& error)
{
    const unsigned int spread = std::max(kMinSpreadMs, static_cast<unsigned int>(end - begin) * kSpreadMsEach);
    for (std::size_t device = begin; device < end; ++device)
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
    const std::clock_t cpuMs = std::clock() / (CLOCKS_PER_SEC / 1000);
    std::ostringstream line;
    line << "ok devices=" << m_devices.size() << " present=" << present << " connections=" << connections
         << " descriptions=" << m_descriptions << " requests=" << m_requests << " searches=" << counts.searches
         << " answers=" << counts.answers << " notifies=" << counts.notifies << " cpu_ms=" << cpuMs;
    return line.str();
}
