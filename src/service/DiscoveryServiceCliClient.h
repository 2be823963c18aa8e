#pragma once

#include <CLIClient.h>

#include <functional>
#include <list>
#include <map>
#include <string>

class NotifyTargetTaskIF;

namespace SonarixService
{

/// The service's commands at the debug console: their texts, and which key each of them has.
/// Task: registration and Initialize() on the main thread, commands on the task given.
/// Owner: the controller. Never does what a command asks for: that is the handler's.
class DiscoveryServiceCliClient final
{
public:
    using Handler = std::function<std::string(int cmdKey, const std::list<std::string>& arguments)>;

    explicit DiscoveryServiceCliClient(NotifyTargetTaskIF* task);
    DiscoveryServiceCliClient(const DiscoveryServiceCliClient&) = delete;
    DiscoveryServiceCliClient& operator=(const DiscoveryServiceCliClient&) = delete;

    /// Before Initialize(). False where the command is there already; upper and lower case and blanks are no
    /// difference.
    bool RegisterCliCmd(int cmdKey, const std::string& command, const std::string& help, const std::string& usage);

    /// Once: opens the console for what was registered.
    void Initialize(const Handler& handler);

    /// What the console calls. False for a command that was not registered, and where there is no handler.
    bool HandleCliCmd(const std::string& command, const std::list<std::string>& arguments, std::string& response);

    /// For everybody at the console. From any thread.
    void SendAsyncResponse(const std::string& text);

private:
    NotifyTargetTaskIF* const m_task;
    std::map<std::string, int> m_commands; ///< normalised text -> key
    CLIClient::Descriptors m_descriptors;  ///< until Initialize()
    Handler m_handler;
    CLIClient m_cliClient; ///< the last, so that it goes first: it calls what stands above
};

} // namespace SonarixService
