#pragma once

#include "runtime/CallbackRegistry.h"
#include "ssdp/GSSDPHandlerIF.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace SonarixService
{

/// One GSSDP resource browser on one interface, and on top of it a search with a time-out, which the browser has no
/// notion of: a caller asks for a target and a number of seconds, and after those SEARCH_COMPLETE is published. The
/// browser stays active then: sightings and byebyes for the same target go on arriving.
/// Task: operations on any thread; GLib's and GSSDP's objects, all their callbacks and the subscribers' on the thread
/// "GSSDPMainLoop", which lives from the constructor to the destructor. Subscribers are called with m_mutex held: they
/// pass AsyncCallbacks and never call back into the handler.
/// Owner: SsdpDiscovery.
/// Never follows a change of the interface: a new interface or address means a new handler. A client that cannot be
/// made (no such interface, no IPv4 address) leaves the handler SEARCH_NOT_READY for good, and every search is refused.
///
/// What one neighbour can do to it is bounded by the AnnouncementGate before the browser. What the client itself
/// remembers of neighbours, it forgets by being replaced: at a search, or in between where there are very many.
///
/// Design: switching the browser off makes it report everything that it knows as unavailable and forget it; switched
/// on again it searches and reports what answers, as if seen for the first time. Each StartSearch() does both.
/// m_threadMutex before m_mutex, never the reverse; the thread takes m_mutex alone.
class GSSDPHandler final : public GSSDPHandlerIF
{
public:
    /// `iface` null or empty: no particular interface. Returns when the thread is SEARCH_READY or has failed.
    explicit GSSDPHandler(const char* iface);
    ~GSSDPHandler() override;
    GSSDPHandler(const GSSDPHandler&) = delete;
    GSSDPHandler& operator=(const GSSDPHandler&) = delete;

    void RegisterForSearchStatus(const Callback<SearchStatus>& callback) override;
    void RegisterForResourceStatus(const Callback<ResourceStatus, std::string, std::string>& callback) override;
    bool StartSearch(const std::string& target, int timeoutSec) override;

private:
    struct Ear;
    struct MainLoop; ///< what GLib and GSSDP hold, and their callbacks

    void StartGssdpSearchThread();
    void StopGssdpSearchThread();
    void SetStatus(const char* function, SearchStatus status); ///< with m_mutex held

    // On the thread.
    void GSSDPMainLoop();
    void GSSDPMainLoopStarted();
    void GSSDPTimeout();
    void GSSDPMainLoopRestartBrowser(const std::string& target);
    void GSSDPMainLoopRenewWornClient();
    bool RenewClient(MainLoop& loop);
    void Listen(Ear& ear);
    void GSSDPResourceAvailableCB(const std::string& usn, const std::vector<std::string>& locations);
    void GSSDPResourceUnavailableCB(const std::string& usn);

    std::mutex m_mutex;             ///< guards what follows, up to the registries
    std::condition_variable m_cond; ///< the thread is SEARCH_READY, or has left an error
    std::unique_ptr<MainLoop> m_mainLoop;
    std::optional<std::string> m_error;
    SearchStatus m_status = SEARCH_NOT_READY;
    std::string m_iface;
    int m_timeoutSec = 0; ///< of the current search; not positive: none
    int m_elapsedSec = 0;
    CallbackRegistry<SearchStatus> m_searchStatusRegistry;
    CallbackRegistry<ResourceStatus, std::string, std::string> m_resourceStatusRegistry;

    std::mutex m_threadMutex; ///< one start, stop or StartSearch() at a time
    std::thread m_thread;
    bool m_running = false; ///< from a finished start to a finished stop, also where the client failed
};

} // namespace SonarixService
