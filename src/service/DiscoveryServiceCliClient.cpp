#include "service/DiscoveryServiceCliClient.h"

#include "runtime/DPrint.h"
#include "runtime/TaskCheck.h"

#include <memory>

namespace SonarixService
{

namespace
{

const DPrint s_log("DiscoveryServiceCliClient");

/// Returns the command in lower case and without whitespace.
std::string Normalized(const std::string& command)
{
    std::string normalized;
    for (const char letter : command)
    {
        if (letter != ' ' && (letter < '\t' || letter > '\r'))
        {
            normalized += letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
        }
    }
    return normalized;
}

} // namespace

DiscoveryServiceCliClient::DiscoveryServiceCliClient(NotifyTargetTaskIF* task)
    : m_task(task)
    , m_cliClient("sonarix")
{
}

bool DiscoveryServiceCliClient::RegisterCliCmd(int cmdKey, const std::string& command, const std::string& help,
                                               const std::string& usage)
{
    DPRINTF(s_log, DPrint::LEVEL_VERBOSE, "RegisterCliCmd cmdKey:%d cmd:\"%s\"", cmdKey, command.c_str());
    if (!m_commands.emplace(Normalized(command), cmdKey).second)
    {
        DPRINTF(s_log, DPrint::LEVEL_ERROR, "Command \"%s\" already exists!", command.c_str());
        return false;
    }
    m_descriptors.push_back(std::make_shared<CLIClient::CLICmdDescriptor>(command, help, usage));
    return true;
}

void DiscoveryServiceCliClient::Initialize(const Handler& handler)
{
    m_handler = handler;
    m_cliClient.Initialize(m_task, m_descriptors,
                           [this](const std::string& command, const std::list<std::string>& arguments,
                                  std::string& response) { return HandleCliCmd(command, arguments, response); });
    m_descriptors.clear();
}

bool DiscoveryServiceCliClient::HandleCliCmd(const std::string& command, const std::list<std::string>& arguments,
                                             std::string& response)
{
    TASK_CHECK(m_task);
    DPRINTF(s_log, DPrint::LEVEL_VERBOSE, "HandleCliCmd cmd:\"%s\"", command.c_str());
    const auto found = m_commands.find(Normalized(command));
    if (found == m_commands.end())
    {
        DPRINTF(s_log, DPrint::LEVEL_ERROR, "Unsupported command: \"%s\"", command.c_str());
        return false;
    }
    if (!m_handler)
    {
        DPRINTF(s_log, DPrint::LEVEL_ERROR, "Missing cli handler for sonarix %s", command.c_str());
        return false;
    }
    const Handler handler = m_handler; // a copy: the command may release the last reference to this object
    response = handler(found->second, arguments);
    return true;
}

void DiscoveryServiceCliClient::SendAsyncResponse(const std::string& text)
{
    m_cliClient.SendAsyncResponse(text);
}

} // namespace SonarixService
