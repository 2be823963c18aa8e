#pragma once

#include "tools/simulated/Identity.h"
#include "tools/simulated/Schedule.h"
#include "tools/simulated/SimulatedGateway.h"
#include "tools/simulated/Simulator.h"
#include "tools/simulated/upnp-devices/FakeHttpServer.h"
#include "tools/simulated/upnp-devices/Kinds.h"
#include "tools/simulated/upnp-devices/SsdpResponder.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class NotifyTargetTaskIF;

/// Many UPnP devices in one process. Each has its own uuid and address, uses SSDP, and serves its description over
/// HTTP. Products of the family also have a gateway. Task: all calls and callbacks run on `task`.
class Devices final : public Simulator
{
public:
    struct Settings
    {
        std::vector<Kind> kinds; ///< of each device
        unsigned int firstIndex = 0;
        std::uint32_t firstIpv4 = 0; ///< host byte order
        std::uint16_t port = 0;      ///< of the web servers
        std::uint16_t gatewayPort = 0;
        bool hasGateways = true;
        bool isSilent = false; ///< at the start
        std::string guid;      ///< of the first device; empty: derived from its index, like all others
        std::string name;      ///< like `guid`
        SsdpResponder::Settings ssdp;
    };

    Devices(NotifyTargetTaskIF* task, const Settings& settings);
    ~Devices() override;

    /// Unless `isSilent` is set, opens all ports and spreads the announcements over the next seconds.
    bool Start(std::string& error) override;

    static constexpr std::size_t kMaxCount = 4096;

private:
    struct Device
    {
        std::unique_ptr<FakeHttpServer> http;      ///< null: no server listens at its LOCATION
        std::unique_ptr<SimulatedGateway> gateway; ///< null: the device has none
    };

    void Add(NotifyTargetTaskIF* task, const Settings& settings, std::size_t offset);
    void Leave(std::size_t device, bool saysGoodbye);
    bool Return(const Range& range, std::string& error);
    std::string Stats() const override;

    const bool m_startsSilent;
    std::vector<Device> m_devices;
    std::uint64_t m_descriptions = 0; ///< requests of descriptions
    std::uint64_t m_requests = 0;     ///< requests at the gateways
    IL::RandomSequence m_random;
    Schedule m_schedule;
    SsdpResponder m_responder;
};
