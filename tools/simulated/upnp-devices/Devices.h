#pragma once

#include "tools/simulated/Identity.h"
#include "tools/simulated/Neighbours.h"
#include "tools/simulated/ProductFace.h"
#include "tools/simulated/Schedule.h"
#include "tools/simulated/upnp-devices/HttpFace.h"
#include "tools/simulated/upnp-devices/Kinds.h"
#include "tools/simulated/upnp-devices/SsdpSpeaker.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class NotifyTargetTaskIF;

/// Many UPnP devices in one process: each with a uuid and an address of its own, on SSDP, with a web server that serves
/// its description, and products of the family with a gateway besides. Task: everything on the one given, answers too.
class Devices final : public Neighbours
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
        std::string guid;      ///< of the first device; empty: it follows from its index, as all others do
        std::string name;      ///< the same
        SsdpSpeaker::Settings ssdp;
    };

    Devices(NotifyTargetTaskIF* task, const Settings& settings);
    ~Devices() override;
    Devices(const Devices&) = delete;
    Devices& operator=(const Devices&) = delete;

    /// Where they are not to be silent, all listen, and will be announced over the next seconds.
    bool Start(std::string& error) override;
    void Run(const std::string& command, const Answer& answer) override;

    static constexpr std::size_t kMaxCount = 4096;

private:
    struct Device
    {
        std::unique_ptr<HttpFace> http;       ///< null: nobody listens at its LOCATION
        std::unique_ptr<ProductFace> gateway; ///< null: it has none
    };

    void Add(NotifyTargetTaskIF* task, const Settings& settings, std::size_t offset);
    void Leave(std::size_t device, bool saysGoodbye);
    bool Return(std::size_t begin, std::size_t end, std::string& error);
    std::string Stats() const;

    const bool m_startsSilent;
    std::vector<Device> m_devices;
    std::uint64_t m_descriptions = 0; ///< asked for
    std::uint64_t m_requests = 0;     ///< of gateways
    IL::RandomSequence m_random;
    Schedule m_schedule;
    SsdpSpeaker m_speaker;
};
