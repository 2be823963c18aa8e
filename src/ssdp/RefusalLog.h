#pragma once

#include "ssdp/InterfaceLink.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace SonarixService
{

/// Counts what is refused by its reason, and says which refusals are told to the log: neither a neighbour that goes on
/// for hours nor a forger of addresses fills it.
/// Task: its owner's. Never forgets a count; a reason is one of a few texts.
class RefusalLog final
{
public:
    void Add(std::string_view reason);
    /// So far.
    std::uint64_t Count(std::string_view reason) const;

    /// Whether a line is due now; it counts as written then.
    [[nodiscard]] bool MayLog(IPv4 sender, std::string_view reason, std::int64_t nowMs);

    /// A reason is logged once in this time for each sender.
    static constexpr std::int64_t kLogIntervalMs = 60'000;
    /// Senders that may have lines in one interval: more help nobody.
    static constexpr std::size_t kMaxLoggedSenders = 64;

private:
    template <class Value>
    using ByReason = std::map<std::string, Value, std::less<>>;

    ByReason<std::uint64_t> m_counts;
    std::map<IPv4, ByReason<std::int64_t>> m_logged; ///< when
};

} // namespace SonarixService
