#include "ssdp/GSSDPHandler.h"

#include "base/EnumName.h"
#include "base/Heap.h"
#include "runtime/DPrint.h"
#include "ssdp/AnnouncementFilter.h"
#include "ssdp/GlibLog.h"
#include "ssdp/InterfaceAddresses.h"
#include "ssdp/MessageInterceptor.h"

#include <cassert>
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
const char* const kAllResources = "ssdp:all"; ///< until the first search, while the browser is inactive

/// GSSDPClient caches the User-Agent of every host forever. If it holds more than this, more than a house has, it is
/// replaced at the next search.
constexpr std::size_t kManyHosts = 100;
/// A client whose cache is full (MessageInterceptor::kMaxHosts) is replaced between searches, but not more often than
/// this: each new client sends M-SEARCHes.
constexpr int kMinReplacementSec = 10;

#ifndef NDEBUG
thread_local const GSSDPHandler* t_handlerOfThread = nullptr; ///< set on the thread "GSSDPMainLoop"
#endif

const char* OrEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

void EndSource(GSource*& source)
{
    if (source != nullptr)
    {
        g_source_destroy(source); // before unref, which may free it
        g_source_unref(source);
        source = nullptr;
    }
}

} // namespace

/// A client, its browser, and the interceptor that filters the messages between them.
struct GSSDPHandler::Listener
{
    /// Throws std::runtime_error with the library's reason.
    Listener(const std::string& iface, AnnouncementFilter& filter)
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
        m_interceptor = std::make_unique<MessageInterceptor>(m_client, filter);
        m_browser = gssdp_resource_browser_new(m_client, kAllResources);
        gssdp_resource_browser_set_active(m_browser, FALSE); // nothing is searched until the first StartSearch()
    }
    ~Listener()
    {
        g_clear_object(&m_browser);
        m_interceptor.reset();
        g_clear_object(&m_client);
    }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    void Search(const std::string& target)
    {
        gssdp_resource_browser_set_target(m_browser, target.c_str());
        gssdp_resource_browser_set_active(m_browser, TRUE);
    }

    GSSDPClient* m_client = nullptr;
    std::unique_ptr<MessageInterceptor> m_interceptor;
    GSSDPResourceBrowser* m_browser = nullptr;
};

/// Created and freed on the thread "GSSDPMainLoop". While it runs, other threads may use m_loop and m_context.
struct GSSDPHandler::MainLoop
{
    MainLoop()
        : m_context(g_main_context_new())
    {
        g_main_context_push_thread_default(m_context); // the library attaches its sockets and timers to it
        m_loop = g_main_loop_new(m_context, FALSE);
    }
    ~MainLoop()
    {
        EndSource(m_ready);
        EndSource(m_tick);
        if (m_listener)
        {
            gssdp_resource_browser_set_active(m_listener->m_browser, FALSE);
        }
        g_main_loop_unref(m_loop);
        g_main_context_unref(m_context); // the thread's stack of default contexts holds another reference
        m_listener.reset();
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

    /// A request of StartSearch() to the loop.
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
        static_cast<GSSDPHandler*>(handler)->GSSDPMainLoopReplaceFullClient();
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
    AnnouncementFilter m_filter;
    std::unique_ptr<Listener> m_listener;
    std::string m_target; ///< of the last search
    int m_sinceReplacementSec = kMinReplacementSec;
    GSource* m_tick = nullptr;
    GSource* m_ready = nullptr;
};

const char* Name(GSSDPHandlerIF::SearchStatus status)
{
    static constexpr const char* kNames[] = {"SEARCH_NOT_READY", "SEARCH_READY", "SEARCH_IN_PROGRESS",
                                             "SEARCH_COMPLETE"};
    return EnumName(kNames, status);
}

const char* Name(GSSDPHandlerIF::ResourceStatus status)
{
    static constexpr const char* kNames[] = {"RESOURCE_UNAVAILABLE", "RESOURCE_AVAILABLE"};
    return EnumName(kNames, status);
}

std::shared_ptr<GSSDPHandlerIF> GSSDPHandlerIF::Create(const std::string& iface)
{
    Factory* const factory = s_factoryOverride.Get();
    return factory != nullptr ? factory->Create(iface) : std::make_shared<GSSDPHandler>(iface.c_str());
}

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
    m_running = true; // also after an error: the thread must be joined, and StartSearch() tests m_status
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
#ifndef NDEBUG
    t_handlerOfThread = this;
#endif
    pthread_setname_np(pthread_self(), kThreadName);
    DPRINTF(s_log, DPrint::LEVEL_DEBUG, "%s - Starting main loop", __func__);
    auto owned = std::make_unique<MainLoop>();
    MainLoop& loop = *owned;
    try
    {
        loop.m_listener = std::make_unique<Listener>(m_iface, loop.m_filter);
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
    if (!loop.m_listener->m_interceptor->IsConnected())
    {
        DPRINTF(s_log, DPrint::LEVEL_ERROR,
                "%s: this GSSDP has no signal message-received: announcements are not checked, and a USN without a "
                "colon ends the process",
                __func__);
    }
    Connect(*loop.m_listener);
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
    owned.reset(); // without m_mutex: the browser reports its resources as unavailable
}

void GSSDPHandler::GSSDPMainLoopStarted()
{
    assert(t_handlerOfThread == this);
    DPRINTF(s_log, DPrint::LEVEL_DEBUG, "%s - Main loop running", __func__);
    const std::lock_guard lock(m_mutex);
    SetStatus(__func__, SEARCH_READY);
    m_cond.notify_one();
}

void GSSDPHandler::GSSDPTimeout()
{
    assert(t_handlerOfThread == this);
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
    assert(t_handlerOfThread == this);
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    Heap::GiveBack(); // this thread's free memory of removed devices
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
    Listener* listener = loop->m_listener.get();
    const char* const interface = OrEmpty(gssdp_client_get_interface(listener->m_client));
    DPRINTF(s_log, DPrint::LEVEL_INFO, "%s - Restarting browser on %s (%s) with filter: %s", __func__, interface,
            OrEmpty(gssdp_client_get_host_ip(listener->m_client)), target.c_str());
    gssdp_resource_browser_set_active(listener->m_browser, FALSE);
    loop->m_filter.Restart(target, ReadInterfaceAddresses(interface));
    loop->m_target = target;
    if (listener->m_interceptor->Hosts() <= kManyHosts || !ReplaceClient(*loop))
    {
        listener->Search(target);
    }
}

void GSSDPHandler::GSSDPMainLoopReplaceFullClient()
{
    assert(t_handlerOfThread == this);
    MainLoop* loop = nullptr;
    {
        const std::lock_guard lock(m_mutex);
        loop = m_mainLoop.get();
    }
    if (loop != nullptr && ++loop->m_sinceReplacementSec >= kMinReplacementSec && !loop->m_target.empty() &&
        loop->m_listener->m_interceptor->Hosts() >= MessageInterceptor::kMaxHosts)
    {
        DPRINT(s_log, DPrint::LEVEL_WARNING,
               "more than " << MessageInterceptor::kMaxHosts << " hosts use SSDP: the client is replaced");
        ReplaceClient(*loop);
    }
}

/// Replaces the client and its browser, without a report. The new browser searches at once. Returns false if the old
/// client stays.
bool GSSDPHandler::ReplaceClient(MainLoop& loop)
{
    loop.m_sinceReplacementSec = 0;
    try
    {
        auto listener = std::make_unique<Listener>(m_iface, loop.m_filter);
        g_signal_handlers_disconnect_by_data(loop.m_listener->m_browser, this);
        loop.m_listener = std::move(listener);
    }
    catch (const std::runtime_error& error)
    {
        DPRINT(s_log, DPrint::LEVEL_WARNING, "no new GSSDP client: " << error.what());
        return false;
    }
    Connect(*loop.m_listener);
    loop.m_listener->Search(loop.m_target);
    return true;
}

void GSSDPHandler::Connect(Listener& listener)
{
    g_signal_connect(listener.m_browser, "resource-available", G_CALLBACK(&MainLoop::OnAvailable), this);
    g_signal_connect(listener.m_browser, "resource-unavailable", G_CALLBACK(&MainLoop::OnUnavailable), this);
}

void GSSDPHandler::GSSDPResourceAvailableCB(const std::string& usn, const std::vector<std::string>& locations)
{
    assert(t_handlerOfThread == this);
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
    assert(t_handlerOfThread == this);
    const std::lock_guard lock(m_mutex);
    DPRINTF(s_log, DPrint::LEVEL_VERBOSE, "%s: resource unavailable", __func__);
    DPRINTF(s_log, DPrint::LEVEL_VERBOSE, "%s:    USN:      %s", __func__, usn.c_str());
    m_resourceStatusRegistry.Send(RESOURCE_UNAVAILABLE, usn, {}, {});
}

} // namespace SonarixService
