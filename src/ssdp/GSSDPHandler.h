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

/// One GSSDP resource browser on one interface, with a search time-out, which the browser lacks: SEARCH_COMPLETE is
/// published that many seconds after StartSearch(). The browser stays active after it: announcements and byebyes for
/// the same target are still reported. Task: operations on any thread. Objects of GLib and GSSDP and all their
/// callbacks stay on the thread "GSSDPMainLoop" (checked in debug builds), which runs from the constructor to the
/// destructor. It calls the subscribers with m_mutex held: they pass AsyncCallbacks and never call the handler. Owner:
/// SsdpDiscovery. Does not follow a change of the interface: a new interface or address needs a new handler. If the
/// client cannot be created (no such interface, no IPv4 address), the handler stays SEARCH_NOT_READY and refuses every
/// search.
///
/// Limits: AnnouncementFilter bounds what one host can do to the browser. GSSDPClient caches the User-Agent of every
/// host forever, so it is replaced at a search, or earlier if the cache is very large.
///
/// Design: a browser that is deactivated reports everything that it knows as unavailable and clears its table.
/// Activated again, it searches and reports all responses as new. Each StartSearch() does both. Lock order:
/// m_threadMutex before m_mutex. The thread "GSSDPMainLoop" takes only m_mutex.
class GSSDPHandler final : public GSSDPHandlerIF
{
public:
    /// `iface` null or empty: the library chooses. Returns when the status is SEARCH_READY or the thread has failed.
    explicit GSSDPHandler(const char* iface);
    ~GSSDPHandler() override;
    GSSDPHandler(const GSSDPHandler&) = delete;
    GSSDPHandler& operator=(const GSSDPHandler&) = delete;

    void RegisterForSearchStatus(const Callback<SearchStatus>& callback) override;
    void RegisterForResourceStatus(const Callback<ResourceStatus, std::string, std::string>& callback) override;
    bool StartSearch(const std::string& target, int timeoutSec) override;

private:
    struct Listener;
    struct MainLoop; ///< the objects of GLib and GSSDP, and their callbacks

    void StartGssdpSearchThread();
    void StopGssdpSearchThread();
    void SetStatus(const char* function, SearchStatus status); ///< with m_mutex held

    // The following functions run on the thread "GSSDPMainLoop".
    void GSSDPMainLoop();
    void GSSDPMainLoopStarted();
    void GSSDPTimeout();
    void GSSDPMainLoopRestartBrowser(const std::string& target);
    void GSSDPMainLoopReplaceFullClient();
    bool ReplaceClient(MainLoop& loop);
    void Connect(Listener& listener);
    void GSSDPResourceAvailableCB(const std::string& usn, const std::vector<std::string>& locations);
    void GSSDPResourceUnavailableCB(const std::string& usn);

    std::mutex m_mutex;             ///< guards the members up to the registries
    std::condition_variable m_cond; ///< signals SEARCH_READY or m_error to the constructor
    std::unique_ptr<MainLoop> m_mainLoop;
    std::optional<std::string> m_error;
    SearchStatus m_status = SEARCH_NOT_READY;
    std::string m_iface;
    int m_timeoutSec = 0; ///< of the current search; not positive: no time-out
    int m_elapsedSec = 0;
    CallbackRegistry<SearchStatus> m_searchStatusRegistry;
    CallbackRegistry<ResourceStatus, std::string, std::string> m_resourceStatusRegistry;

    std::mutex m_threadMutex; ///< serializes start, stop and StartSearch()
    std::thread m_thread;
    bool m_running = false; ///< from a finished start to a finished stop, also if the client could not be created
};

} // namespace SonarixService
