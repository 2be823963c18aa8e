#include <CLIClient.h>

#include "platform/console/ConsoleProtocol.h"
#include "platform/console/LineAnswerer.h"
#include "platform/console/LineServer.h"
#include "runtime/DPrint.h"
#include "runtime/SystemUtils.h"
#include "runtime/Task.h"
#include "runtime/ThreadMutex.h"

#include <atomic>
#include <utility>

namespace
{

const DPrint s_log("CLIClient");

std::atomic<CLIClient::InitializeOverride> s_initialize{nullptr};

} // namespace

CLIClient::CLICmdDescriptor::CLICmdDescriptor(std::string commandText, std::string helpText, std::string usageText)
    : command(std::move(commandText))
    , help(std::move(helpText))
    , usage(std::move(usageText))
{
}

/// What lives on the task, and outlives the client for as long as something of it is queued there.
class CLIClient::Impl final : public std::enable_shared_from_this<Impl>
{
public:
    explicit Impl(const std::string& name)
        : m_name(name)
    {
    }

    void Start(NotifyTargetTaskIF* task, const Descriptors& descriptors, const Handler& handler)
    {
        m_handler = handler;
        m_task = task;
        IL::BreakThread([self = shared_from_this(), descriptors] { self->Open(descriptors); }, task);
    }

    void Send(const std::string& text)
    {
        NotifyTargetTaskIF* const task = m_task;
        if (task != nullptr)
        {
            IL::BreakThread([self = shared_from_this(), text] { self->Broadcast(text); }, task);
        }
    }

    /// On any thread: afterwards no command starts.
    void End()
    {
        m_hasEnded = true;
        Handler ended; // destroyed after the mutex is free again
        {
            const ScopedMutex lock(m_mutex);
            ended.swap(m_handler);
        }
        NotifyTargetTaskIF* const task = m_task;
        if (task != nullptr && task->IsCurrent())
        {
            Close();
        }
        else if (task != nullptr)
        {
            IL::BreakThread([self = shared_from_this()] { self->Close(); }, task); // a stop of the task closes too
        }
    }

private:
    void Open(const Descriptors& descriptors)
    {
        using Console::FormatAnswer;
        using Console::LineServer;
        if (m_hasEnded)
        {
            return;
        }
        const auto run = [weak = weak_from_this()](const std::string& command, const std::list<std::string>& arguments,
                                                   std::string& response)
        {
            const std::shared_ptr<Impl> self = weak.lock();
            return self && self->Run(command, arguments, response);
        };
        const auto answerer = std::make_shared<const Console::LineAnswerer>(descriptors, run);
        const auto server = std::make_shared<LineServer>(
            m_task,
            LineServer::Answers{
                [answerer](const std::string& line) { return answerer->Answer(line); },
                FormatAnswer(false, "a line of more than " + std::to_string(LineServer::kMaxLineBytes) + " bytes"),
                FormatAnswer(false, "a line without its end"),
                FormatAnswer(false, "too many consoles: " + std::to_string(LineServer::kMaxClients) + " are open")});
        std::string error;
        if (!server->Open(SystemUtils::RunDir() + "/console", error))
        {
            DPRINT(s_log, DPrint::LEVEL_ERROR, m_name << " has no debug console: " << error);
            return;
        }
        m_server = server;
        // Holds us until Close(): a client that ends right after its task was stopped must not take the sockets along
        // on its own thread, while the task still serves them.
        m_stop = m_task.load()->ConnectStopNotification([self = shared_from_this()] { self->Close(); });
    }

    bool Run(const std::string& command, const std::list<std::string>& arguments, std::string& response)
    {
        const ScopedMutex lock(m_mutex);
        const Handler handler = m_hasEnded ? nullptr : m_handler; // a copy: it may end the client
        return handler && handler(command, arguments, response);
    }

    void Broadcast(const std::string& text)
    {
        if (m_server)
        {
            m_server->Broadcast(Console::FormatAsync(text));
        }
    }

    void Close()
    {
        const std::shared_ptr<Console::LineServer> server = std::move(m_server);
        m_server = nullptr;
        if (server)
        {
            server->Close();
        }
        m_stop.Disconnect();
    }

    const std::string m_name;
    std::atomic<NotifyTargetTaskIF*> m_task{nullptr};
    std::shared_ptr<Console::LineServer> m_server; ///< on the task
    ScopedConnection m_stop;                       ///< on the task
    CThreadMutex m_mutex;                          ///< held while a command runs
    Handler m_handler;
    std::atomic<bool> m_hasEnded{false};
};

CLIClient::CLIClient(const std::string& name)
    : m_impl(std::make_shared<Impl>(name))
{
}

CLIClient::~CLIClient()
{
    m_impl->End();
}

void CLIClient::Initialize(NotifyTargetTaskIF* task, const Descriptors& descriptors, const Handler& handler)
{
    if (const InitializeOverride initialize = s_initialize)
    {
        initialize(descriptors, handler);
        return;
    }
    m_impl->Start(task, descriptors, handler);
}

void CLIClient::SendAsyncResponse(const std::string& text)
{
    m_impl->Send(text);
}

void CLIClient::SetInitializeOverride(InitializeOverride initialize)
{
    s_initialize = initialize;
}
