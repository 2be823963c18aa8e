#pragma once

#include "runtime/Timers.h"
#include "ssdp/InterfaceAddresses.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>

class NotifyTargetTaskIF;

namespace SonarixService
{

/// Decides which description is fetched next, and limits how many fetches run. It does not know HTTP.
/// Task: everything runs on the task given to the constructor.
/// Owner: SsdpDeviceParser, which ends after that task. The destructor drops waiting fetches without a callback.
///
/// Design: the next fetch is one of the host whose last fetch started longest ago, so a host with many announcements
/// does not delay the others. Hosts that could not be reached go behind all others, because each of them may occupy a
/// slot for the full time limit of a transfer. A fetch that sleeps before a retry keeps its slot; the HTTP interface
/// bounds the sleeping ones (kMaxSleeping), so the other slots stay free for transfers.
///
///     Add ----> waiting ----> start() ----> running ----> Ended
///                  |
///                  v kMaxWaitMs
///              giveUp()
class FetchQueue final
{
public:
    struct Fetch
    {
        IPv4 host = 0;
        std::function<bool()> start;  ///< false: it has failed at once, and Ended() is not called
        std::function<void()> giveUp; ///< called instead of start() after kMaxWaitMs
    };

    explicit FetchQueue(NotifyTargetTaskIF* task);
    ~FetchQueue() = default;
    FetchQueue(const FetchQueue&) = delete;
    FetchQueue& operator=(const FetchQueue&) = delete;

    /// Null: accepted; start() may have been called already. Otherwise the reason for a log line.
    [[nodiscard]] const char* Add(Fetch fetch);
    /// To be called when a started fetch of `host` has ended.
    void Ended(IPv4 host, bool wasReached);

    /// Maximum number of running fetches; bounds threads and sockets for a small device. With 50 ms for a description,
    /// 8 serve 160 a second. Transfers of an ended table are not counted; each ends within the time limit of a
    /// transfer.
    static constexpr std::size_t kMaxRunning = 8;
    /// Maximum number of sleeping fetches, so that hosts that ask for retries after hours leave half of kMaxRunning to
    /// transfers. Two hosts can hold all sleeping slots; then the fetches of others fail without a retry, until the
    /// next search repeats them.
    static constexpr std::size_t kMaxSleeping = kMaxRunning / 2;
    /// Waiting and running fetches: several times the number of devices in a house that respond to one search.
    static constexpr std::size_t kMaxFetches = 256;
    /// Maximum number of fetches of one host: for its description, and for a second one while its LOCATION changes.
    static constexpr std::size_t kMaxFetchesOfHost = 2;
    /// Maximum time in the queue: the length of a search. The next search finds the device again.
    static constexpr std::int64_t kMaxWaitMs = 10'000;
    /// Maximum number of remembered unreachable hosts; a further one replaces the oldest.
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
        std::uint64_t lastStart = 0; ///< number of its last start; 0: none since it has fetches here
    };

    void StartNext();
    void GiveUpLate();
    std::list<Waiting>::iterator Next();
    void Remove(IPv4 host);
    void ArmTimer();

    NotifyTargetTaskIF* const m_task;
    std::list<Waiting> m_waiting; ///< the oldest first
    std::map<IPv4, Host> m_hosts; ///< hosts with waiting or running fetches
    std::deque<IPv4> m_unreached; ///< hosts whose last fetch failed in transfer
    std::size_t m_fetches = 0;
    std::size_t m_running = 0;
    std::uint64_t m_starts = 0;
    MessageTimer m_timer;
};

} // namespace SonarixService
