#include "Conversation.h"

#include "Command.h"
#include "PorticoClient.h"
#include "Task.h"

#include <nlohmann/json.hpp>

#include <future>
#include <iostream>
#include <memory>
#include <string>

namespace
{

using nlohmann::ordered_json;

/// On the conversation's own task, but for the constructor and Wait().
class Conversation
{
public:
    explicit Conversation(const Command& command)
        : m_command(command)
        , m_task(IL::CreateTask("Portico", ""))
    {
    }

    ExitStatus Run()
    {
        Portico::ConnectCallback onConnect([this](const bool& isConnected) { HandleConnection(isConnected); }, m_task);
        m_client = Portico::PorticoClient::Create("portico", m_command.host, m_command.port, "tarsier", m_command.guid,
                                                  &onConnect, std::nullopt, {});
        if (m_command.isWatch)
        {
            const AsyncCallback<std::string> onBody([this](const std::string& body) { PrintLine(body); }, m_task);
            m_client->RegisterNotificationText(m_command.path, onBody, Portico::EndpointScope::PUBLIC, 1.0, 0);
        }
        else
        {
            const AsyncCallback<std::string, std::string> onDone(
                [this](const std::string& body, const std::string& error) { HandleAnswer(body, error); }, m_task);
            m_client->SendText(m_command.verb, m_command.path, m_command.body, onDone, 1.0);
        }
        const ExitStatus status = m_ended.get_future().get();
        m_client->Shutdown();
        IL::StopTask(m_task);
        IL::JoinTask(m_task);
        return status;
    }

private:
    void HandleConnection(bool isConnected)
    {
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
    }

    void HandleAnswer(const std::string& body, const std::string& error)
    {
        if (m_hasEnded || (!error.empty() && !m_wasEverConnected)) // the connection callback says it better
        {
            return;
        }
        if (!error.empty())
        {
            PrintError(ordered_json::parse(error, nullptr, false));
            End(EXIT_ERROR_ANSWER);
            return;
        }
        std::cout << ordered_json::parse(body).dump(2) << std::endl;
        End(EXIT_ANSWERED);
    }

    void PrintError(const ordered_json& error)
    {
        std::cerr << "portico: " << m_command.path << ": error " << error.value("code", 0) << "-"
                  << error.value("subcode", 0) << ": " << error.value("message", "") << "\n";
    }

    void PrintLine(const std::string& body)
    {
        std::cout << body << std::endl;
        if (!std::cout && !m_hasEnded) // the reader is gone
        {
            End(EXIT_ANSWERED);
        }
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
    bool m_wasEverConnected = false;
    bool m_hasEnded = false;
};

} // namespace

ExitStatus Converse(const Command& command)
{
    return Conversation(command).Run();
}
