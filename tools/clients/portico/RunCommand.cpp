#include "tools/clients/portico/RunCommand.h"

#include "runtime/Task.h"
#include "runtime/TaskCheck.h"
#include "tools/clients/portico/Command.h"
#include <PorticoClient.h>

#include <nlohmann/json.hpp>

#include <cerrno>
#include <future>
#include <iostream>
#include <memory>
#include <string>

namespace
{

using nlohmann::ordered_json;

constexpr int kUnreachable = 503;

std::string Describe(const std::string& errorBody)
{
    const ordered_json error = ordered_json::parse(errorBody);
    return "error " + std::to_string(error.value("code", 0)) + "-" + std::to_string(error.value("subcode", 0)) + ": " +
           error.value("message", "");
}

/// Task: everything but the constructor and Run() runs on its own task, which Run() ends.
class CommandRunner
{
public:
    explicit CommandRunner(const Command& command)
        : m_command(command)
        , m_task(IL::CreateTask("Portico", ""))
    {
    }

    ExitStatus Run()
    {
        Portico::ConnectCallback onConnect([this](const bool& isConnected) { HandleConnection(isConnected); }, m_task);
        Portico::CommonClientCreationInfo info;
        info.onRefused.emplace([this](const std::string&, const std::string& error) { HandleError(error); }, m_task);
        m_client = Portico::PorticoClient::Create("portico", m_command.host, m_command.port, "tarsier", m_command.guid,
                                                  &onConnect, std::nullopt, info);
        if (!m_command.isWatch)
        {
            const AsyncCallback<std::string, std::string> onDone(
                [this](const std::string& body, const std::string& error) { HandleAnswer(body, error); }, m_task);
            m_client->SendText(m_command.verb, m_command.path, m_command.body, onDone, 1.0);
        }
        else if (m_command.guid.empty())
        {
            Watch();
        }
        else
        {
            // The gateway accepts any subscription while the product is not connected. After a first response of the
            // product, it returns the product's own answer to the subscription.
            const AsyncCallback<std::string, std::string> onReached(
                [this](const std::string&, const std::string& error) { HandleReached(error); }, m_task);
            m_client->SendText(Portico::Verb::GET, "/sonarix/info", {}, onReached, 1.0);
        }
        const ExitStatus status = m_ended.get_future().get();
        m_client->Shutdown();
        IL::StopTask(m_task);
        IL::JoinTask(m_task);
        return status;
    }

private:
    void Watch()
    {
        const AsyncCallback<std::string> onBody([this](const std::string& body) { PrintLine(body); }, m_task);
        m_client->RegisterNotificationText(m_command.path, onBody, Portico::EndpointScope::PUBLIC, 1.0, 0);
    }

    void HandleReached(const std::string& error)
    {
        TASK_CHECK(m_task);
        if (m_hasEnded)
        {
            return;
        }
        if (m_isConnected && !error.empty() && ordered_json::parse(error).value("code", 0) == kUnreachable)
        {
            std::cerr << "portico: " << Describe(error) << "; watching all the same\n";
        }
        Watch();
    }

    void HandleConnection(bool isConnected)
    {
        TASK_CHECK(m_task);
        m_isConnected = isConnected;
        const bool wasEverConnected = m_wasEverConnected;
        m_wasEverConnected = m_wasEverConnected || isConnected;
        if (isConnected || m_hasEnded)
        {
            return;
        }
        if (!wasEverConnected)
        {
            std::cerr << "portico: no gateway at " << m_command.host << ":" << m_command.port << "; is it running?\n";
            End(EXIT_NO_GATEWAY);
        }
        else if (m_command.isWatch)
        {
            std::cerr << "portico: the gateway went; watching on as soon as it is back\n";
        }
        else
        {
            std::cerr << "portico: the gateway went before it answered\n";
            End(EXIT_NO_GATEWAY);
        }
    }

    void HandleAnswer(const std::string& body, const std::string& error)
    {
        TASK_CHECK(m_task);
        if (!error.empty())
        {
            HandleError(error);
        }
        else if (!m_hasEnded)
        {
            std::cout << ordered_json::parse(body).dump(2) << std::endl;
            End(EXIT_DONE);
        }
    }

    void HandleError(const std::string& text)
    {
        TASK_CHECK(m_task);
        if (m_hasEnded) // the reason is already printed
        {
            return;
        }
        std::cerr << "portico: " << m_command.path << ": " << Describe(text) << "\n";
        End(EXIT_ERROR_RESPONSE);
    }

    void PrintLine(const std::string& body)
    {
        TASK_CHECK(m_task);
        std::cout << body << std::endl;
        if (std::cout || m_hasEnded)
        {
            return;
        }
        if (errno == EPIPE) // the reader has closed the pipe
        {
            std::cout.clear();
        }
        End(EXIT_DONE);
    }

    void End(ExitStatus status)
    {
        m_hasEnded = true;
        m_ended.set_value(status);
    }

    const Command& m_command;
    NotifyTargetTaskIF* m_task;
    std::shared_ptr<PorticoClientIF> m_client;
    std::promise<ExitStatus> m_ended;
    bool m_isConnected = false;
    bool m_wasEverConnected = false;
    bool m_hasEnded = false;
};

} // namespace

ExitStatus RunCommand(const Command& command)
{
    return CommandRunner(command).Run();
}
