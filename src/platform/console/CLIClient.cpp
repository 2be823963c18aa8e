#include <CLIClient.h>

#include "platform/console/ConsoleProtocol.h"
#include "platform/console/LineServer.h"
#include "platform/console/RequestHandler.h"
#include "runtime/DPrint.h"
#include "runtime/SystemUtils.h"
#include "runtime/Task.h"
#include "runtime/TaskCheck.h"
#include "runtime/ThreadMutex.h"

#include <atomic>
#include <utility>

namespace
{

const DPrint s_log("CLIClient");

} // namespace

CLIClient::CLICmdDescriptor::CLICmdDescriptor(std::string commandText, std::string helpText, std::string usageText)
    : command(std::move(commandText))
    , help(std::move(helpText))
    , usage(std::move(usageText))
{
}

/// The part of CLIClient that runs on the task. Queued entries of the task hold it, so it may outlive the client.
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

    /// Ends the client. Safe from any thread. No command starts after End() has returned.
    void End()
    {
        m_hasEnded = true;
        Handler ended; // destroyed after the mutex is released
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
            // If the task has stopped, this entry is dropped: the stop notification has closed the console.
            IL::BreakThread([self = shared_from_this()] { self->Close(); }, task);
        }
    }

private:
    void Open(const Descriptors& descriptors)
    {
        TASK_CHECK(m_task);
        using Console::FormatResponse;
        using Console::LineServer;
        if (m_hasEnded)
        {
            return;
        }
        // The server's handler and the stop notification hold this object until Close(). If the client ends right after
        // its task was stopped, the sockets must not be destroyed on the client's thread while the task serves them.
        const auto run = [self = shared_from_this()](const std::string& command,
                                                     const std::list<std::string>& arguments, std::string& response)
        { return self->Run(command, arguments, response); };
        const auto handler = std::make_shared<const Console::RequestHandler>(descriptors, run);
        const auto server = std::make_shared<LineServer>(
            m_task,
            LineServer::Responses{
                [handler](const std::string& line) { return handler->Handle(line); },
                FormatResponse(false, "a line of more than " + std::to_string(LineServer::kMaxLineBytes) + " bytes"),
                FormatResponse(false, "a line without its end"),
                FormatResponse(false, "too many consoles: " + std::to_string(LineServer::kMaxClients) + " are open")});
        std::string error;
        if (!server->Open(SystemUtils::RunDir() + "/console", error))
        {
            DPRINT(s_log, DPrint::LEVEL_ERROR, m_name << " has no debug console: " << error);
            return;
        }
        m_server = server;
        m_stop = m_task.load()->ConnectStopNotification([self = shared_from_this()] { self->Close(); });
    }

    bool Run(const std::string& command, const std::list<std::string>& arguments, std::string& response)
    {
        TASK_CHECK(m_task);
        const ScopedMutex lock(m_mutex);
        const Handler handler = m_hasEnded ? nullptr : m_handler; // a copy: the command may destroy the client
        return handler && handler(command, arguments, response);
    }

    void Broadcast(const std::string& text)
    {
        TASK_CHECK(m_task);
        if (m_server)
        {
            m_server->Broadcast(Console::FormatAsync(text));
        }
    }

    void Close()
    {
        TASK_CHECK(m_task);
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
    if (const auto initialize = s_initializeOverride.Get())
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
