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

/// mDNS responder for many products. Each product responds with its own packet from its own address after its own
/// delay, and omits known answers and records that it sent within the last second (RFC 6762 sections 6 and 7.1). It
/// never sends unicast responses. Task: all calls run on `task`. Owner: must outlive the actions that it puts on
/// `schedule`.
class MdnsResponder final
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

    MdnsResponder(NotifyTargetTaskIF* task, Schedule& schedule, Settings settings);
    MdnsResponder(const MdnsResponder&) = delete;
    MdnsResponder& operator=(const MdnsResponder&) = delete;

    /// Returns false and sets `error` on failure.
    bool Open(std::string& error);

    /// Adds a product, which is silent until Announce(). Products are numbered from 0 in the order of the calls.
    void Add(const Identity& identity);
    /// Starts responding to queries. Announces the product after `afterMs` and again one second later.
    void Announce(std::size_t product, unsigned int afterMs);
    /// Stops all packets of the product without goodbye.
    void Silence(std::size_t product);
    /// After the product's delay, sends a goodbye, silences the product and calls `gone`. Calls only `gone` if silent.
    void SayGoodbye(std::size_t product, std::function<void()> gone);
    /// Renames a product, which must be silent.
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
    /// A set of record types, one bit each.
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
        unsigned int silences =
            0;               ///< number of silences so far; an action that was scheduled before a silence does nothing
        Records pending = 0; ///< to be sent when the delay is over
        std::array<std::int64_t, 4> sentMs{};
    };
    /// Wanted and known records of one querier, from one query or from several with the TC bit.
    struct Inquiry
    {
        std::vector<Records> wanted; ///< by product
        std::vector<Records> known;
        std::uint64_t number = 0;
    };

    void HandleDatagram(const std::uint8_t* bytes, std::size_t size, const Endpoint& sender);
    void Gather(const Dns::Query& query, Inquiry& inquiry) const;
    void AddWanted(const Dns::Question& question, Inquiry& inquiry) const;
    void AddKnown(const Dns::KnownAnswer& answer, Inquiry& inquiry) const;
    void Answer(const Inquiry& inquiry);
    void PlanAnswer(std::size_t product, Records records);
    void SendPending(std::size_t product);
    bool SendRecords(std::size_t product, Records records, bool isGoodbye);
    void PlanAnnouncement(std::size_t product, unsigned int afterMs, int more);
    unsigned int NextDelay();

    Schedule& m_schedule;
    const Settings m_settings;
    const Dns::Name m_type;
    IL::RandomSequence m_random;
    std::vector<Product> m_products;
    std::unordered_map<Dns::Name, std::size_t> m_byInstance; ///< lowered
    std::unordered_map<Dns::Name, std::size_t> m_byHost;     ///< lowered
    std::map<Endpoint, Inquiry> m_truncated;                 ///< by sender: queries with the TC bit
    std::uint64_t m_truncatedCount = 0;
    Counts m_counts;
    MulticastSocket m_socket;
};
