#pragma once

#include "Mdns/MdnsTypes.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>

namespace MDNS
{

/// Gets the answers that were lost where hundreds of products answer a browser's first question together, by having
/// the browser ended and started anew once. The mDNS daemon repeats its question after exactly 1 s, when those who have
/// answered the first one still keep silent, since nobody may multicast a record twice within a second; its third
/// question comes at 3 s. Ended before the second question and started after the silence, it asks at once.
/// Tells what the second browser reports from what is known, so that nothing is reported twice, and what has changed
/// between the two is reported as a browser would: what is gone first.
/// A value of its owner, under the owner's lock. Has no timer and calls nobody.
class SecondLook final
{
public:
    enum class Step
    {
        NOTHING,
        END_BROWSE,
        BROWSE,
    };
    struct Changes
    {
        std::set<ServiceId> gone;
        std::set<ServiceId> come;
    };

    /// With the start of the first browser.
    void Begin(std::int64_t nowMs);
    /// When the daemon has told that no more is to be expected, a second after it began to ask: few have answered, or
    /// it has asked for somebody else before, and goes on at its own times.
    void AllForNow();

    /// For each name that is reported: whether to tell of it now.
    bool IsNews(const ServiceId& id);
    /// For each name that is reported as removed: whether it has been told of.
    bool IsTold(const ServiceId& id);
    /// When the browser has reported all that the daemon knew at its start.
    Changes TakeChanges();

    std::optional<std::int64_t> NextMs() const; ///< when a step is due: not before many have been reported
    Step Due(std::int64_t nowMs);               ///< at that time, or later

    /// Reports, one for each name, interface and protocol. Fewer answers fit the receive buffer of the mDNS daemon:
    /// about 270 with a kernel's usual setting, if nobody sends anything else.
    static constexpr std::size_t kMany = 128;
    /// After the start: the question goes out 0.1 s after it, and is answered within 0.12 s. What the daemon has not
    /// told by then waits until kBrowseMs.
    static constexpr std::int64_t kEndMs = 600;
    static constexpr std::int64_t kTooLateMs = 900; ///< the second question is on its way
    /// After the start. The question that follows 0.1 s later finds the last answer to the first a second old.
    static constexpr std::int64_t kBrowseMs = 1150;

private:
    enum class State
    {
        FIRST,
        BETWEEN,
        SECOND,
        DONE,
    };

    State m_state = State::DONE;
    std::int64_t m_beginMs = 0;
    std::set<ServiceId> m_told;  ///< FIRST: and not removed; later: and not reported again
    std::set<ServiceId> m_again; ///< of them, those reported again
    std::set<ServiceId> m_held;  ///< reported by the second browser alone
};

} // namespace MDNS
