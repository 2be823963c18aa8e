#include "GSSDPHandler.h"

#include "AnnouncementGate.h"
#include "DPrint.h"
#include "GlibLog.h"
#include "InterfaceLink.h"
#include "MessageFilter.h"

#include <libgssdp/gssdp.h>
#include <pthread.h>
#include <system_error>
#include <utility>

namespace SonarixService
{

namespace
{

const DPrint s_log("GSSDPHandler");

const char* const kThreadName = "GSSDPMainLoop";
const char* const kAllResources = "ssdp:all"; ///< until the first search, while the browser is switched off

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
        if (m_browser != nullptr)
        {
            gssdp_resource_browser_set_active(m_browser, FALSE);
        }
        g_main_loop_unref(m_loop);
        g_main_context_unref(m_context); // the thread's default stack has another reference
        g_clear_object(&m_browser);
        m_filter.reset();
        g_clear_object(&m_client);
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
    GSSDPClient* m_client = nullptr;
    AnnouncementGate m_gate;
    std::unique_ptr<MessageFilter> m_filter;
    GSSDPResourceBrowser* m_browser = nullptr;
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
    GError* error = nullptr;
    loop.m_client =
        gssdp_client_new_full(m_iface.empty() ? nullptr : m_iface.c_str(), nullptr, 0, GSSDP_UDA_VERSION_1_0, &error);
    if (loop.m_client == nullptr)
    {
        const std::string message = error != nullptr ? error->message : "no client";
        g_clear_error(&error);
        DPRINTF(s_log, DPrint::LEVEL_ERROR, "%s: Error creating the GSSDP handler client: %s", __func__,
                message.c_str());
        owned.reset();
        const std::lock_guard lock(m_mutex);
        m_error = message;
        m_cond.notify_one();
        return;
    }
    loop.m_filter = std::make_unique<MessageFilter>(loop.m_client, loop.m_gate);
    if (!loop.m_filter->IsConnected())
    {
        DPRINTF(s_log, DPrint::LEVEL_ERROR,
                "%s: this GSSDP has no signal message-received: announcements are not checked, and one without a "
                "colon in its USN ends the process",
                __func__);
    }
    loop.m_browser = gssdp_resource_browser_new(loop.m_client, kAllResources);
    g_signal_connect(loop.m_browser, "resource-available", G_CALLBACK(&MainLoop::OnAvailable), this);
    g_signal_connect(loop.m_browser, "resource-unavailable", G_CALLBACK(&MainLoop::OnUnavailable), this);
    gssdp_resource_browser_set_active(loop.m_browser, FALSE); // nothing is searched until the first StartSearch()
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
    const char* const interface = OrEmpty(gssdp_client_get_interface(loop->m_client));
    DPRINTF(s_log, DPrint::LEVEL_INFO, "%s - Restarting browser on %s (%s) with filter: %s", __func__, interface,
            OrEmpty(gssdp_client_get_host_ip(loop->m_client)), target.c_str());
    gssdp_resource_browser_set_active(loop->m_browser, FALSE);
    loop->m_gate.Restart(target, ReadInterfaceLink(interface));
    gssdp_resource_browser_set_target(loop->m_browser, target.c_str());
    gssdp_resource_browser_set_active(loop->m_browser, TRUE);
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
