#pragma once

#include "runtime/engine/RandomSequence.h"
#include "tools/simulated/Identity.h"
#include "tools/simulated/MulticastSocket.h"
#include "tools/simulated/crowd/DnsMessage.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

class NotifyTargetTaskIF;
class Schedule;

/// The mDNS side of many products, as if each had a responder of its own: each answers with a packet of its own,
/// from its own address and after its own delay, and leaves out what the asker knows and what it has sent within
/// the last second. Unicast answers are not given.
/// Task: everything on the one given. Owner: outlives what it has put on `schedule`, or neither runs any more.
class Responder final
{
public:
    struct Settings
    {
        std::string interface;
        std::uint16_t port = 0; ///< of the products' services
        unsigned int minDelayMs = 20;
        unsigned int maxDelayMs = 120;
        std::uint64_t seed = 1;
    };
    struct Counts
    {
        std::uint64_t queries = 0;
        std::uint64_t packets = 0; ///< sent
    };

    Responder(NotifyTargetTaskIF* task, Schedule& schedule, Settings settings);
    Responder(const Responder&) = delete;
    Responder& operator=(const Responder&) = delete;

    /// False, with the reason in `error`.
    bool Open(std::string& error);

    /// A product that is silent until Announce; products are known by the order of their adding, from 0.
    void Add(const Identity& identity);
    /// From now on it answers; it speaks by itself after the time, and again a second later.
    void Announce(std::size_t product, unsigned int afterMs);
    /// From now on it neither answers nor speaks.
    void Silence(std::size_t product);
    /// After its delay it says that it goes, is silent from then on, and `gone` is called: at once where it is silent.
    void SayGoodbye(std::size_t product, std::function<void()> gone);
    /// Of a silent product.
    void Rename(std::size_t product, const std::string& name);

    bool IsSilent(std::size_t product) const
    {
        return m_products[product].isSilent;
    }
    const Counts& GetCounts() const
    {
        return m_counts;
    }

private:
    /// Which records, one bit each.
    using Records = std::uint8_t;
    enum : Records
    {
        PTR_RECORD = 1,
        SRV_RECORD = 2,
        TXT_RECORD = 4,
        ADDRESS_RECORD = 8,
        ALL_RECORDS = 15,
    };
    struct Product
    {
        Dns::Name instance;
        Dns::Name host;
        std::string txt;
        std::uint32_t ipv4 = 0;
        bool isSilent = true;
        unsigned int life = 0; ///< counts silences: what was planned before one does not happen
        Records pending = 0;   ///< to be answered when its delay is over
        std::array<std::int64_t, 4> sentMs{};
    };
    /// What one asker wants and knows, gathered from one query or, if it is truncated, several.
    struct Asked
    {
        std::vector<Records> wanted; ///< by product
        std::vector<Records> known;
        std::uint64_t number = 0;
    };

    void HandleDatagram(const std::uint8_t* bytes, std::size_t size, const Endpoint& sender);
    void Gather(const Dns::Query& query, Asked& asked) const;
    void Want(const Dns::Question& question, Asked& asked) const;
    void Know(const Dns::KnownAnswer& answer, Asked& asked) const;
    void Answer(const Asked& asked);
    void PlanAnswer(std::size_t product, Records records);
    void SendPending(std::size_t product);
    bool SendRecords(std::size_t product, Records records, bool isGoodbye);
    void PlanAnnouncement(std::size_t product, unsigned int afterMs, int more);
    unsigned int OwnDelay();

    Schedule& m_schedule;
    const Settings m_settings;
    const Dns::Name m_type;
    IL::RandomSequence m_random;
    std::vector<Product> m_products;
    std::unordered_map<Dns::Name, std::size_t> m_byInstance; ///< lowered
    std::unordered_map<Dns::Name, std::size_t> m_byHost;     ///< lowered
    std::map<Endpoint, Asked> m_truncated;                   ///< by sender: more is to come
    std::uint64_t m_truncatedCount = 0;
    Counts m_counts;
    MulticastSocket m_socket;
};
