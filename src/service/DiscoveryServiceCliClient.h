#pragma once

#include <CLIClient.h>

#include <functional>
#include <list>
#include <map>
#include <string>

class NotifyTargetTaskIF;

namespace SonarixService
{

/// Registers the service's commands at the debug console and maps each command text to its key.
/// Task: registration and Initialize() run on the main thread, HandleCliCmd() on `task`.
/// Owner: the controller. Never executes a command itself: the handler does.
class DiscoveryServiceCliClient final
{
public:
    using Handler = std::function<std::string(int cmdKey, const std::list<std::string>& arguments)>;

    explicit DiscoveryServiceCliClient(NotifyTargetTaskIF* task);
    DiscoveryServiceCliClient(const DiscoveryServiceCliClient&) = delete;
    DiscoveryServiceCliClient& operator=(const DiscoveryServiceCliClient&) = delete;

    /// To be called before Initialize(). Returns false if the command is registered already; case and whitespace are
    /// ignored.
    bool RegisterCliCmd(int cmdKey, const std::string& command, const std::string& help, const std::string& usage);

    /// To be called once. Opens the console with the registered commands.
    void Initialize(const Handler& handler);

    /// Called by the console. Returns false for an unregistered command, and if there is no handler.
    bool HandleCliCmd(const std::string& command, const std::list<std::string>& arguments, std::string& response);

    /// Sends `text` to all open consoles. Safe from any thread.
    void SendAsyncResponse(const std::string& text);

private:
    NotifyTargetTaskIF* const m_task;
    std::map<std::string, int> m_commands; ///< normalized text -> key
    CLIClient::Descriptors m_descriptors;  ///< until Initialize()
    Handler m_handler;
    CLIClient m_cliClient; ///< declared last, so destroyed first: its handler uses the members above
};

} // namespace SonarixService
