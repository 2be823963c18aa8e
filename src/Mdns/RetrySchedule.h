#pragma once

#include "runtime/engine/RandomSequence.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace SonarixService
{

/// When each name whose resolve has failed is to be asked for again: 5, 10, 20, 40 and then every 60 s after its
/// failures in a row, each up to a fifth sooner or later, so that what failed together does not ask together again.
/// A value of its owner's task. Has no timer and calls nobody: the owner looks at NextMs() and wakes itself.
class RetrySchedule final
{
public:
    using Key = std::pair<int, std::string>; ///< DiscoverableDeviceType and instance name

    /// The same seed gives the same times.
    explicit RetrySchedule(std::uint64_t seed);

    /// `failures` in a row, the one now included. Replaces what was planned for the name.
    void Plan(const Key& key, unsigned int failures, std::int64_t nowMs);
    void Forget(const Key& key);
    void ForgetType(int type);
    /// What is due, in the order of its times; it is planned no more.
    std::vector<Key> TakeDue(std::int64_t nowMs);
    std::optional<std::int64_t> NextMs() const; ///< the earliest time of all

    static constexpr std::chrono::milliseconds kFirstPause{5000};
    static constexpr std::chrono::milliseconds kLongestPause{60000};

private:
    std::map<Key, std::int64_t> m_times;
    std::set<std::pair<std::int64_t, Key>> m_order; ///< the same, by time
    IL::RandomSequence m_random;
};

} // namespace SonarixService
