#pragma once

#include "ssdp/GSSDPHandlerIF.h"
#include "ssdp/InterfaceAddresses.h"
#include "tests/simulation/World.h"

#include <cstdint>
#include <memory>
#include <string>

/// SSDP on the simulated network: in the service, the adapter that searches and the engine that fetches descriptions;
/// outside, the devices' answers, announcements and byebyes. Like the library, an adapter reports a device once in a
/// search, and again only at another LOCATION.
class World::SsdpNetwork final : private SonarixService::GSSDPHandlerIF::Factory
{
public:
    explicit SsdpNetwork(World& world);
    ~SsdpNetwork();
    SsdpNetwork(const SsdpNetwork&) = delete;
    SsdpNetwork& operator=(const SsdpNetwork&) = delete;

    void Announce(const Device& device);
    void SayBye(const std::string& guid);
    /// Without multicast nobody is heard; around a refresh it passes in any case.
    void SetMulticast(bool passes);
    /// The interface is made anew, or gets another address, without a word to the service.
    void ChangeLink();
    void SetHanging(bool isHanging); ///< every transfer, until its time limit
    /// There has been all that it takes for the service to know `device`.
    bool MustKnow(const Device& device) const;

private:
    class Adapter;
    class Engine;

    std::shared_ptr<SonarixService::GSSDPHandlerIF> Create(const std::string& iface) override;
    bool Search(const std::shared_ptr<Adapter>& adapter, const std::string& target, int timeoutSec);
    void Hear(const std::weak_ptr<Adapter>& ear, const Device& device);
    bool PassesMulticast() const;
    const Device* ServerOf(const std::string& location) const;
    bool OneIn(std::uint64_t bound);

    World& m_world;
    std::weak_ptr<Adapter> m_adapter; ///< that of the service, as long as it wants SSDP
    SonarixService::InterfaceAddresses m_link{{{0x0A000001, 0xFFFF0000}}, {}, 1};
    SonarixService::InterfaceAddresses m_adapterLink; ///< as it was when the last adapter was made
    std::int64_t m_multicastMs = 0;                   ///< since when it passes
    bool m_passesMulticast = true;
    bool m_isHanging = false;
};
