#pragma once

#include "Mdns/avahi/MdnsTypes.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>

namespace MDNS
{

/// Decides when a browse is repeated, and merges the reports of both browsers.
///
/// Why: if hundreds of products answer the first query of a browse at the same time, some responses are lost. The mDNS
/// daemon sends its second query after exactly 1 s. A host that has answered the first query stays silent then, because
/// RFC 6762 section 6 forbids it to multicast a record twice within 1 s. The third query follows at 3 s. Therefore the
/// first browser is freed before the second query, and a new one is created after that second; it queries at once.
///
/// The reports of the second browser are compared with those of the first. No service is reported twice. The
/// differences are reported at the end, removals first.
/// Task: a plain value, used under its owner's lock. Has no timer and invokes no callback.
class BrowseRepeat final
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
        std::set<ServiceId> removed;
        std::set<ServiceId> added;
    };

    /// Starts the schedule. To be called when the first browser starts.
    void Begin(std::int64_t nowMs);
    /// Handles AVAHI_BROWSER_ALL_FOR_NOW, which the daemon sends 1 s after its first query. While the first browser
    /// runs, the event means that few hosts answered, or that the daemon has browsed this type before and keeps to its
    /// own schedule. The browse is not repeated then.
    void AllForNow();

    /// Handles a service that a browser adds. Returns true if the owner must report the service now.
    bool Add(const ServiceId& id);
    /// Handles a service that a browser removes. Returns true if the service was reported before.
    bool Remove(const ServiceId& id);
    /// Returns, once, the services to remove and to add because the second browser's reports differ from those of the
    /// first, which has been freed. Empty while no second browser runs. To be called when either browser has reported
    /// everything that the daemon knew when that browser started.
    Changes TakeChanges();

    std::optional<std::int64_t> NextMs() const; ///< when Due() must be called; empty: not needed
    Step Due(std::int64_t nowMs);               ///< returns what to do; call it at NextMs() or later

    /// Reported services (one for each name, interface and protocol) that cause a repeat. Fewer responses fit into the
    /// daemon's receive buffer: about 270 at the kernel's default size, if there is no other traffic.
    static constexpr std::size_t kMany = 128;
    /// Time of END_BROWSE after the start. The query is sent 0.1 s after the start, and hosts answer within 0.12 s.
    /// Services that the daemon reports later are reported by the second browser.
    static constexpr std::int64_t kEndMs = 600;
    static constexpr std::int64_t kTooLateMs = 900; ///< after this the daemon's second query may have been sent
    /// Time of BROWSE after the start. The new query is sent 0.1 s later; the last response is then older than 1 s.
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
    std::set<ServiceId> m_reported;  ///< by the first browser, not removed, and not confirmed by the second one
    std::set<ServiceId> m_confirmed; ///< by both browsers
    std::set<ServiceId> m_new;       ///< by the second browser only
};

} // namespace MDNS
