#pragma once

#include "runtime/engine/RandomSequence.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace SonarixService
{

/// The times of the next attempts for failed resolves: 5, 10, 20, 40 s and then every 60 s after consecutive failures.
/// Each pause is up to 20 % shorter or longer, so that resolves that failed together are not repeated together.
/// Task: a plain value on its owner's task. Has no timer and invokes no callback: the owner sets a timer for NextMs().
class RetrySchedule final
{
public:
    using Key = std::pair<int, std::string>; ///< DiscoverableDeviceType and instance name

    /// Schedules with equal seeds give equal times.
    explicit RetrySchedule(std::uint64_t seed);

    /// Sets the time of the next attempt for `key`. `failures` counts consecutive failures, including the current one.
    void Plan(const Key& key, unsigned int failures, std::int64_t nowMs);
    void Forget(const Key& key);
    void ForgetType(int type);
    /// Removes and returns the keys whose time has come, earliest first.
    std::vector<Key> TakeDue(std::int64_t nowMs);
    std::optional<std::int64_t> NextMs() const; ///< the earliest time; empty: nothing is planned

    static constexpr std::chrono::milliseconds kFirstPause{5000};
    static constexpr std::chrono::milliseconds kLongestPause{60000};

private:
    std::set<std::pair<std::int64_t, Key>> m_order; ///< time (ms) and key; one entry per key
    IL::RandomSequence m_random;
};

} // namespace SonarixService
