#include "platform/console/RequestHandler.h"

#include "platform/console/ConsoleProtocol.h"
#include "runtime/DPrint.h"

#include <exception>
#include <list>
#include <utility>
#include <vector>

namespace
{

const DPrint s_log("CLIClient");

std::string Join(std::vector<std::string>::const_iterator begin, std::vector<std::string>::const_iterator end)
{
    std::string joined;
    for (auto word = begin; word != end; ++word)
    {
        joined += (joined.empty() ? "" : " ") + *word;
    }
    return joined;
}

} // namespace

Console::RequestHandler::RequestHandler(CLIClient::Descriptors descriptors, CLIClient::Handler handler)
    : m_commands(std::move(descriptors))
    , m_handler(std::move(handler))
{
}

std::string Console::RequestHandler::Handle(const std::string& line) const
{
    Request request;
    std::string error;
    if (!RequestFromLine(line, request, error))
    {
        return FormatResponse(false, error);
    }
    if (request.kind == Request::Kind::COMMAND)
    {
        return Run(request.text);
    }
    std::vector<std::string> words;
    return SplitWords(request.text, words, error) ? FormatCommands(m_commands.WithPrefix(words))
                                                  : FormatResponse(false, error);
}

std::string Console::RequestHandler::Run(const std::string& text) const
{
    std::vector<std::string> words;
    std::string error;
    if (!SplitWords(text, words, error))
    {
        return FormatResponse(false, error);
    }
    const std::size_t size = m_commands.Match(words);
    if (size == 0)
    {
        return FormatResponse(false, words.empty() ? "no command" : "unknown command: " + text);
    }
    const auto argument = words.begin() + static_cast<std::ptrdiff_t>(size);
    const std::string command = Join(words.begin(), argument);
    std::string response;
    try
    {
        const bool isDone = m_handler(command, std::list<std::string>(argument, words.end()), response);
        return FormatResponse(isDone, !isDone && response.empty() ? "not done: " + command : response);
    }
    catch (const std::exception& failure)
    {
        DPRINT(s_log, DPrint::LEVEL_ERROR, "\"" << command << "\" failed: " << failure.what());
        return FormatResponse(false, command + " failed: " + failure.what());
    }
}
