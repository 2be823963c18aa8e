#pragma once

#include "ssdp/InterfaceAddresses.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace SonarixService
{

/// Counts refusals by reason, and limits their log lines: neither one sender over hours nor many forged addresses can
/// flood the log.
/// Task: that of its owner. Counts are never removed: the reasons must be a few constant texts.
class RefusalLog final
{
public:
    void Add(std::string_view reason);
    std::uint64_t Count(std::string_view reason) const;

    /// Returns true if the caller must write a log line now.
    [[nodiscard]] bool MayLog(IPv4 sender, std::string_view reason, std::int64_t nowMs);

    /// Minimum time between two lines with the same sender and reason.
    static constexpr std::int64_t kLogIntervalMs = 60'000;
    /// Maximum number of senders with log lines in one interval.
    static constexpr std::size_t kMaxLoggedSenders = 64;

private:
    template <class Value>
    using ByReason = std::map<std::string, Value, std::less<>>;

    ByReason<std::uint64_t> m_counts;
    std::map<IPv4, ByReason<std::int64_t>> m_logged; ///< time of the last line, in ms
};

} // namespace SonarixService
