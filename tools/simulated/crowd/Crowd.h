#pragma once

#include "tools/simulated/Identity.h"
#include "tools/simulated/Neighbours.h"
#include "tools/simulated/ProductFace.h"
#include "tools/simulated/Schedule.h"
#include "tools/simulated/crowd/Responder.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class NotifyTargetTaskIF;

/// Many products of the family in one process: each with a name, a guid and an address of its own, on mDNS and at
/// its gateway's port. Task: everything on the one given, answers too.
class Crowd final : public Neighbours
{
public:
    struct Settings
    {
        unsigned int count = 0;
        unsigned int firstIndex = 0;
        std::uint32_t firstIpv4 = 0; ///< host byte order
        std::string namePrefix;
        Responder::Settings mdns;
    };

    Crowd(NotifyTargetTaskIF* task, const Settings& settings);
    Crowd(const Crowd&) = delete;
    Crowd& operator=(const Crowd&) = delete;

    /// All listen, and will be announced over the next seconds. False, with the reason in `error`.
    bool Start(std::string& error) override;
    void Run(const std::string& command, const Answer& answer) override;

    static constexpr unsigned int kMaxCount = 8192;

private:
    struct Product
    {
        Identity identity;
        std::unique_ptr<ProductFace> face;
        std::string baseName;
        unsigned int names = 1; ///< that it has had
    };
    using Range = RangeCommand;

    void Silence(std::size_t product);
    void SayGoodbye(const Range& range, const std::function<void()>& done);
    bool Return(const Range& range, std::string& error);
    void Rename(const Range& range, const std::function<void()>& done);
    void TakeNextName(std::size_t product);
    std::string Stats() const;

    std::vector<Product> m_products;
    std::uint64_t m_requests = 0;
    IL::RandomSequence m_random;
    Schedule m_schedule;
    Responder m_responder;
};
