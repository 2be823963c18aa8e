#include "ssdp/GSSDPHandler.h"

#include "base/Heap.h"
#include "runtime/DPrint.h"
#include "ssdp/AnnouncementGate.h"
#include "ssdp/GlibLog.h"
#include "ssdp/InterfaceLink.h"
#include "ssdp/MessageFilter.h"

#include <libgssdp/gssdp.h>
#include <pthread.h>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace SonarixService
{

namespace
{

const DPrint s_log("GSSDPHandler");

const char* const kThreadName = "GSSDPMainLoop";
const char* const kAllResources = "ssdp:all"; ///< until the first search, while the browser is switched off

/// The client never forgets a host that it has heard. At a search, one that remembers more than a house has is
/// replaced.
constexpr std::size_t kManyHosts = 100;
/// One that remembers too many does not live until the next search; but each new one searches, too.
constexpr int kMinRenewalSec = 10;

const char* OrEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

void EndSource(GSource*& source)
{
    if (source != nullptr)
    {
        g_source_destroy(source); // first: the reference may be the last one
        g_source_unref(source);
        source = nullptr;
    }
}

} // namespace

/// A client and the browser on it, with the gate between them.
struct GSSDPHandler::Ear
{
    /// Throws std::runtime_error with the library's reason.
    Ear(const std::string& iface, AnnouncementGate& gate)
    {
        GError* error = nullptr;
        m_client =
            gssdp_client_new_full(iface.empty() ? nullptr : iface.c_str(), nullptr, 0, GSSDP_UDA_VERSION_1_0, &error);
        if (m_client == nullptr)
        {
            const std::string message = error != nullptr ? error->message : "no client";
            g_clear_error(&error);
            throw std::runtime_error(message);
        }
        m_filter = std::make_unique<MessageFilter>(m_client, gate);
        m_browser = gssdp_resource_browser_new(m_client, kAllResources);
        gssdp_resource_browser_set_active(m_browser, FALSE); // nothing is searched until the first StartSearch()
    }
    ~Ear()
    {
        g_clear_object(&m_browser);
        m_filter.reset();
        g_clear_object(&m_client);
    }
    Ear(const Ear&) = delete;
    Ear& operator=(const Ear&) = delete;

    void Search(const std::string& target)
    {
        gssdp_resource_browser_set_target(m_browser, target.c_str());
        gssdp_resource_browser_set_active(m_browser, TRUE);
    }

    GSSDPClient* m_client = nullptr;
    std::unique_ptr<MessageFilter> m_filter;
    GSSDPResourceBrowser* m_browser = nullptr;
};

/// Made and freed on the thread. m_loop and m_context may be used elsewhere while the thread runs.
struct GSSDPHandler::MainLoop
{
    MainLoop()
        : m_context(g_main_context_new())
    {
        g_main_context_push_thread_default(m_context); // the library attaches its sockets and timers there
        m_loop = g_main_loop_new(m_context, FALSE);
    }
    ~MainLoop()
    {
        EndSource(m_ready);
        EndSource(m_tick);
        if (m_ear)
        {
            gssdp_resource_browser_set_active(m_ear->m_browser, FALSE);
        }
        g_main_loop_unref(m_loop);
        g_main_context_unref(m_context); // the thread's default stack has another reference
        m_ear.reset();
        g_main_context_pop_thread_default(m_context);
    }
    MainLoop(const MainLoop&) = delete;
    MainLoop& operator=(const MainLoop&) = delete;

    void Attach(GSource*& source, GSource* created, GSourceFunc function, GSSDPHandler* handler) const
    {
        source = created;
        g_source_set_callback(source, function, handler, nullptr);
        g_source_attach(source, m_context);
    }

    /// A request on its way to the loop.
    struct Restart
    {
        GSSDPHandler* handler;
        std::string target;
    };

    static gboolean OnStarted(gpointer handler)
    {
        static_cast<GSSDPHandler*>(handler)->GSSDPMainLoopStarted();
        return G_SOURCE_REMOVE;
    }
    static gboolean OnTick(gpointer handler)
    {
        static_cast<GSSDPHandler*>(handler)->GSSDPMainLoopRenewWornClient();
        static_cast<GSSDPHandler*>(handler)->GSSDPTimeout();
        return G_SOURCE_CONTINUE;
    }
    static gboolean OnRestart(gpointer request)
    {
        const auto* const restart = static_cast<Restart*>(request);
        restart->handler->GSSDPMainLoopRestartBrowser(restart->target);
        return G_SOURCE_REMOVE;
    }
    static void OnRestartDone(gpointer request)
    {
        delete static_cast<Restart*>(request);
    }
    static void OnAvailable(GSSDPResourceBrowser*, const char* usn, GList* locations, gpointer handler)
    {
        std::vector<std::string> copies;
        for (const GList* row = locations; row != nullptr; row = row->next)
        {
            copies.emplace_back(OrEmpty(static_cast<const char*>(row->data)));
        }
        static_cast<GSSDPHandler*>(handler)->GSSDPResourceAvailableCB(OrEmpty(usn), copies);
    }
    static void OnUnavailable(GSSDPResourceBrowser*, const char* usn, gpointer handler)
    {
        static_cast<GSSDPHandler*>(handler)->GSSDPResourceUnavailableCB(OrEmpty(usn));
    }

    GMainContext* const m_context;
    GMainLoop* m_loop = nullptr;
    AnnouncementGate m_gate;
    std::unique_ptr<Ear> m_ear;
    std::string m_target; ///< of the last search
    int m_sinceRenewalSec = kMinRenewalSec;
    GSource* m_tick = nullptr;
    GSource* m_ready = nullptr;
};

GSSDPHandler::GSSDPHandler(const char* iface)
    : m_iface(OrEmpty(iface))
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    GlibLog::Install();
    StartGssdpSearchThread();
}

GSSDPHandler::~GSSDPHandler()
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    StopGssdpSearchThread();
    const std::lock_guard lock(m_mutex);
    m_searchStatusRegistry.DisconnectAll();
    m_resourceStatusRegistry.DisconnectAll();
}

void GSSDPHandler::RegisterForSearchStatus(const Callback<SearchStatus>& callback)
{
    const std::lock_guard lock(m_mutex);
    m_searchStatusRegistry.Connect(callback);
}

void GSSDPHandler::RegisterForResourceStatus(const Callback<ResourceStatus, std::string, std::string>& callback)
{
    const std::lock_guard lock(m_mutex);
    m_resourceStatusRegistry.Connect(callback);
}

bool GSSDPHandler::StartSearch(const std::string& target, int timeoutSec)
{
    const std::lock_guard threadLock(m_threadMutex);
    const std::lock_guard lock(m_mutex);
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    if (!m_running || m_status == SEARCH_NOT_READY)
    {
        DPRINTF(s_log, DPrint::LEVEL_WARNING, "%s - Not ready", __func__);
        return false;
    }
    if (m_status == SEARCH_IN_PROGRESS && m_timeoutSec > 0)
    {
        DPRINTF(s_log, DPrint::LEVEL_WARNING, "%s - Search already in progress", __func__);
        return false;
    }
    m_timeoutSec = timeoutSec;
    SetStatus(__func__, SEARCH_IN_PROGRESS);
    m_searchStatusRegistry.Send(m_status, {});
    g_main_context_invoke_full(m_mainLoop->m_context, G_PRIORITY_DEFAULT, &MainLoop::OnRestart,
                               new MainLoop::Restart{this, target}, &MainLoop::OnRestartDone);
    return m_running;
}

void GSSDPHandler::StartGssdpSearchThread()
{
    const std::lock_guard threadLock(m_threadMutex);
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    if (m_running)
    {
        DPRINTF(s_log, DPrint::LEVEL_INFO, "%s - Already running", __func__);
        return;
    }
    std::unique_lock lock(m_mutex);
    SetStatus(__func__, SEARCH_NOT_READY);
    m_error.reset();
    try
    {
        m_thread = std::thread(&GSSDPHandler::GSSDPMainLoop, this);
    }
    catch (const std::system_error& error)
    {
        DPRINTF(s_log, DPrint::LEVEL_ERROR, "%s: Error creating the GSSDP handler loop thread: %s", __func__,
                error.what());
        return;
    }
    m_cond.wait(lock, [this] { return m_status != SEARCH_NOT_READY || m_error; });
    m_error.reset();
    m_running = true; // also after an error: the thread is there to be joined, and StartSearch() asks the status
}

void GSSDPHandler::StopGssdpSearchThread()
{
    const std::lock_guard threadLock(m_threadMutex);
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    if (!m_running || !m_thread.joinable())
    {
        DPRINTF(s_log, DPrint::LEVEL_INFO, "%s - Not running", __func__);
        return;
    }
    {
        const std::lock_guard lock(m_mutex);
        if (m_mainLoop)
        {
            g_main_loop_quit(m_mainLoop->m_loop);
        }
    }
    DPRINTF(s_log, DPrint::LEVEL_DEBUG, "%s: joining search thread", __func__);
    m_thread.join();
    m_running = false;
}

void GSSDPHandler::SetStatus(const char* function, SearchStatus status)
{
    m_status = status;
    DPRINTF(s_log, DPrint::LEVEL_INFO, "%s: SearchStatus = %s", function, Name(status));
}

void GSSDPHandler::GSSDPMainLoop()
{
    pthread_setname_np(pthread_self(), kThreadName);
    DPRINTF(s_log, DPrint::LEVEL_DEBUG, "%s - Starting main loop", __func__);
    auto owned = std::make_unique<MainLoop>();
    MainLoop& loop = *owned;
    try
    {
        loop.m_ear = std::make_unique<Ear>(m_iface, loop.m_gate);
    }
    catch (const std::runtime_error& error)
    {
        DPRINTF(s_log, DPrint::LEVEL_ERROR, "%s: Error creating the GSSDP handler client: %s", __func__, error.what());
        owned.reset();
        const std::lock_guard lock(m_mutex);
        m_error = error.what();
        m_cond.notify_one();
        return;
    }
    if (!loop.m_ear->m_filter->IsConnected())
    {
        DPRINTF(s_log, DPrint::LEVEL_ERROR,
                "%s: this GSSDP has no signal message-received: announcements are not checked, and one without a "
                "colon in its USN ends the process",
                __func__);
    }
    Listen(*loop.m_ear);
    loop.Attach(loop.m_tick, g_timeout_source_new_seconds(1), &MainLoop::OnTick, this);
    loop.Attach(loop.m_ready, g_idle_source_new(), &MainLoop::OnStarted, this);
    {
        const std::lock_guard lock(m_mutex);
        m_elapsedSec = 0;
        m_mainLoop = std::move(owned);
    }
    g_main_loop_run(loop.m_loop);
    {
        const std::lock_guard lock(m_mutex);
        SetStatus(__func__, SEARCH_NOT_READY);
        owned = std::move(m_mainLoop);
    }
    DPRINTF(s_log, DPrint::LEVEL_DEBUG, "%s - Main loop stopped", __func__);
    owned.reset(); // without m_mutex: the browser reports what it forgets
}

void GSSDPHandler::GSSDPMainLoopStarted()
{
    DPRINTF(s_log, DPrint::LEVEL_DEBUG, "%s - Main loop running", __func__);
    const std::lock_guard lock(m_mutex);
    SetStatus(__func__, SEARCH_READY);
    m_cond.notify_one();
}

void GSSDPHandler::GSSDPTimeout()
{
    const std::lock_guard lock(m_mutex);
    if (m_status == SEARCH_IN_PROGRESS && m_timeoutSec > 0 && ++m_elapsedSec >= m_timeoutSec)
    {
        DPRINTF(s_log, DPrint::LEVEL_DEBUG, "%s - Timeout", __func__);
        SetStatus(__func__, SEARCH_COMPLETE);
        m_elapsedSec = 0;
        m_searchStatusRegistry.Send(m_status, {});
    }
}

void GSSDPHandler::GSSDPMainLoopRestartBrowser(const std::string& target)
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    Heap::GiveBack(); // what this thread has kept free of devices that have gone
    MainLoop* loop = nullptr;
    {
        const std::lock_guard lock(m_mutex);
        if (!m_mainLoop || m_status == SEARCH_NOT_READY)
        {
            DPRINTF(s_log, DPrint::LEVEL_INFO, "%s - Search not ready", __func__);
            return;
        }
        loop = m_mainLoop.get();
    }
    Ear* ear = loop->m_ear.get();
    const char* const interface = OrEmpty(gssdp_client_get_interface(ear->m_client));
    DPRINTF(s_log, DPrint::LEVEL_INFO, "%s - Restarting browser on %s (%s) with filter: %s", __func__, interface,
            OrEmpty(gssdp_client_get_host_ip(ear->m_client)), target.c_str());
    gssdp_resource_browser_set_active(ear->m_browser, FALSE);
    loop->m_gate.Restart(target, ReadInterfaceLink(interface));
    loop->m_target = target;
    if (ear->m_filter->Hosts() <= kManyHosts || !RenewClient(*loop))
    {
        ear->Search(target);
    }
}

void GSSDPHandler::GSSDPMainLoopRenewWornClient()
{
    MainLoop* loop = nullptr;
    {
        const std::lock_guard lock(m_mutex);
        loop = m_mainLoop.get();
    }
    if (loop != nullptr && ++loop->m_sinceRenewalSec >= kMinRenewalSec && !loop->m_target.empty() &&
        loop->m_ear->m_filter->Hosts() >= MessageFilter::kMaxHosts)
    {
        DPRINT(s_log, DPrint::LEVEL_WARNING,
               "more than " << MessageFilter::kMaxHosts << " hosts speak SSDP: they are forgotten");
        RenewClient(*loop);
    }
}

/// In the place of a client that remembers too many hosts; its browser goes without a word, and the new one searches at
/// once. False: the old one stays.
bool GSSDPHandler::RenewClient(MainLoop& loop)
{
    loop.m_sinceRenewalSec = 0;
    try
    {
        auto ear = std::make_unique<Ear>(m_iface, loop.m_gate);
        g_signal_handlers_disconnect_by_data(loop.m_ear->m_browser, this);
        loop.m_ear = std::move(ear);
    }
    catch (const std::runtime_error& error)
    {
        DPRINT(s_log, DPrint::LEVEL_WARNING, "no new GSSDP client: " << error.what());
        return false;
    }
    Listen(*loop.m_ear);
    loop.m_ear->Search(loop.m_target);
    return true;
}

void GSSDPHandler::Listen(Ear& ear)
{
    g_signal_connect(ear.m_browser, "resource-available", G_CALLBACK(&MainLoop::OnAvailable), this);
    g_signal_connect(ear.m_browser, "resource-unavailable", G_CALLBACK(&MainLoop::OnUnavailable), this);
}

void GSSDPHandler::GSSDPResourceAvailableCB(const std::string& usn, const std::vector<std::string>& locations)
{
    const std::lock_guard lock(m_mutex);
    DPRINTF(s_log, DPrint::LEVEL_VERBOSE, "%s: resource available", __func__);
    DPRINTF(s_log, DPrint::LEVEL_VERBOSE, "%s:    USN:      %s", __func__, usn.c_str());
    for (const std::string& location : locations)
    {
        DPRINTF(s_log, DPrint::LEVEL_VERBOSE, "%s:    Location: %s", __func__, location.c_str());
    }
    m_resourceStatusRegistry.Send(RESOURCE_AVAILABLE, usn, locations.empty() ? std::string() : locations.front(), {});
}

void GSSDPHandler::GSSDPResourceUnavailableCB(const std::string& usn)
{
    const std::lock_guard lock(m_mutex);
    DPRINTF(s_log, DPrint::LEVEL_VERBOSE, "%s: resource unavailable", __func__);
    DPRINTF(s_log, DPrint::LEVEL_VERBOSE, "%s:    USN:      %s", __func__, usn.c_str());
    m_resourceStatusRegistry.Send(RESOURCE_UNAVAILABLE, usn, {}, {});
}

} // namespace SonarixService
