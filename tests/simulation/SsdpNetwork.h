#pragma once

#include "ssdp/GSSDPHandlerIF.h"
#include "ssdp/InterfaceAddresses.h"
#include "tests/simulation/World.h"

#include <cstdint>
#include <memory>
#include <string>

/// SSDP on the simulated network. Replaces the search adapter and the HTTP engine of the service, and simulates the
/// responses, announcements and byebyes of devices. Like GSSDP, an adapter reports a device once per search, and again
/// only with another LOCATION.
class World::SsdpNetwork final : private SonarixService::GSSDPHandlerIF::Factory
{
public:
    explicit SsdpNetwork(World& world);
    ~SsdpNetwork();
    SsdpNetwork(const SsdpNetwork&) = delete;
    SsdpNetwork& operator=(const SsdpNetwork&) = delete;

    void Announce(const Device& device);
    void SayBye(const std::string& guid);
    /// Without multicast no device is reported. Around a refresh multicast always passes.
    void SetMulticast(bool passes);
    /// The interface gets a new index or address without a notification to the service.
    void ChangeLink();
    void SetHanging(bool isHanging); ///< every transfer runs into its timeout
    /// Whether the service must have found and described `device` by now.
    bool MustKnow(const Device& device) const;

private:
    class Adapter;
    class Engine;

    std::shared_ptr<SonarixService::GSSDPHandlerIF> Create(const std::string& iface) override;
    bool Search(const std::shared_ptr<Adapter>& adapter, const std::string& target, int timeoutSec);
    void Receive(const std::weak_ptr<Adapter>& receiver, const Device& device);
    bool PassesMulticast() const;
    const Device* ServerOf(const std::string& location) const;
    bool OneIn(std::uint64_t bound);

    World& m_world;
    std::weak_ptr<Adapter> m_adapter; ///< the service's adapter; expired while SSDP is stopped
    SonarixService::InterfaceAddresses m_link{{{0x0A000001, 0xFFFF0000}}, {}, 1};
    SonarixService::InterfaceAddresses m_adapterLink; ///< m_link at the creation of the last adapter
    std::int64_t m_multicastMs = 0;                   ///< since when multicast passes
    bool m_passesMulticast = true;
    bool m_isHanging = false;
};
