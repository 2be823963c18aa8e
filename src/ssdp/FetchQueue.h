#pragma once

#include "runtime/Timers.h"
#include "ssdp/InterfaceLink.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>

class NotifyTargetTaskIF;

namespace SonarixService
{

/// Says which description is fetched next. It starts fetches and counts them, and knows nothing of HTTP.
/// Task: all on the one that it was made with. Owner: SsdpDeviceParser, as long as that task runs.
/// Its end drops what waits; nobody is told.
///
/// Design: whoever had a turn longest ago is next, so that a neighbour that announces much does not keep out the
/// others; hosts that could not be reached last go behind all others, since each of them may hold its turn for the
/// whole time limit of a transfer. A fetch that waits before a retry lets the next one start, and counts as a transfer
/// again once its wait is over, at once: then no new one starts before there are fewer.
///
///     Add ----> waits ----> start() ----> transfers ----> Ended
///                 |                        |      ^
///                 v kMaxWaitMs             v      |
///             giveUp()                   RetryWait
class FetchQueue final
{
public:
    struct Fetch
    {
        IPv4 host = 0;
        std::function<bool()> start;  ///< false: it has ended at once
        std::function<void()> giveUp; ///< it has waited too long for its turn
    };

    explicit FetchQueue(NotifyTargetTaskIF* task);
    ~FetchQueue() = default;
    FetchQueue(const FetchQueue&) = delete;
    FetchQueue& operator=(const FetchQueue&) = delete;

    /// Null: taken, and perhaps started before the return. Else which bound it is over, for a line of the log.
    [[nodiscard]] const char* Add(Fetch fetch);
    /// A fetch of `host` that was started is over.
    void Ended(IPv4 host, bool wasReached);
    /// One of those that were started begins to wait before a retry, or has done so and goes on.
    void RetryWait(bool begins);

    /// As many threads and sockets at once as a small device can spare; at 50 ms a description they serve 160 a second.
    static constexpr std::size_t kMaxTransfers = 8;
    /// All that wait, are in transfer, or wait before a retry: a few times what a house has that answers one search.
    static constexpr std::size_t kMaxFetches = 256;
    /// Of those, of one host: a product has one description, and a second while it moves to a new LOCATION.
    static constexpr std::size_t kMaxFetchesOfHost = 2;
    /// The length of a search: the next one finds a device again that has not had its turn by then.
    static constexpr std::int64_t kMaxWaitMs = 10'000;
    /// How many hosts that could not be reached are remembered; the oldest is forgotten.
    static constexpr std::size_t kMaxUnreached = kMaxFetches;

private:
    struct Waiting
    {
        Fetch fetch;
        std::int64_t sinceMs;
    };
    struct Host
    {
        std::size_t fetches = 0;
        std::uint64_t lastTurn = 0; ///< 0: none since it has had fetches here
    };

    void GiveTurns();
    void GiveUpLate();
    std::list<Waiting>::iterator Next();
    void Forget(IPv4 host);
    void Remember(IPv4 host, bool wasReached);
    void ArmTimer();

    std::list<Waiting> m_waiting; ///< the longest first
    std::map<IPv4, Host> m_hosts; ///< those that have fetches
    std::deque<IPv4> m_unreached;
    std::size_t m_fetches = 0;
    std::size_t m_transfers = 0;
    std::uint64_t m_turns = 0;
    MessageTimer m_timer;
};

} // namespace SonarixService
