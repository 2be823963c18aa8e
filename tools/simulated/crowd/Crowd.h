#pragma once

#include "tools/simulated/Identity.h"
#include "tools/simulated/Schedule.h"
#include "tools/simulated/SimulatedGateway.h"
#include "tools/simulated/Simulator.h"
#include "tools/simulated/crowd/MdnsResponder.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class NotifyTargetTaskIF;

/// Many products of the family in one process. Each has its own name, guid, address, mDNS records and gateway port.
/// Task: all calls and callbacks run on `task`.
class Crowd final : public Simulator
{
public:
    struct Settings
    {
        unsigned int count = 0;
        unsigned int firstIndex = 0;
        std::uint32_t firstIpv4 = 0; ///< host byte order
        std::string namePrefix;
        MdnsResponder::Settings mdns;
    };

    Crowd(NotifyTargetTaskIF* task, const Settings& settings);

    /// Opens all ports and spreads the announcements over the next seconds. Returns false and sets `error` on failure.
    bool Start(std::string& error) override;

    static constexpr unsigned int kMaxCount = 8192;

private:
    struct Product
    {
        Identity identity;
        std::unique_ptr<SimulatedGateway> gateway;
        std::string baseName;
        unsigned int names = 1; ///< number of names used so far
    };

    bool Return(const Range& range, std::string& error);
    void Rename(std::size_t product, const Pending& pending);
    void TakeNextName(std::size_t product);
    std::string Stats() const override;

    std::vector<Product> m_products;
    std::uint64_t m_requests = 0;
    IL::RandomSequence m_random;
    Schedule m_schedule;
    MdnsResponder m_responder;
};
