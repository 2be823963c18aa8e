#include "platform/console/ConsoleProtocol.h"

#include <nlohmann/json.hpp>

namespace
{

using nlohmann::ordered_json;

std::string Line(const ordered_json& object)
{
    return object.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

} // namespace

bool Console::ReadRequest(const std::string& line, Request& request, std::string& error)
{
    const nlohmann::json object = nlohmann::json::parse(line, nullptr, false);
    if (!object.is_object())
    {
        error = object.is_discarded() ? "no JSON" : "no JSON object";
        return false;
    }
    const auto command = object.find("command");
    const auto help = object.find("help");
    if ((command != object.end()) == (help != object.end()))
    {
        error = "a request has either \"command\" or \"help\"";
        return false;
    }
    const auto& asked = command != object.end() ? command : help;
    if (!asked->is_string())
    {
        error = '"' + asked.key() + "\" takes a text";
        return false;
    }
    request.kind = command != object.end() ? Request::Kind::COMMAND : Request::Kind::HELP;
    request.text = asked->get<std::string>();
    return true;
}

std::string Console::FormatAnswer(bool isOk, const std::string& response)
{
    return Line({{"ok", isOk}, {"response", response}});
}

std::string Console::FormatAsync(const std::string& text)
{
    return Line({{"async", text}});
}

std::string Console::FormatCommands(const CLIClient::Descriptors& descriptors)
{
    ordered_json commands = ordered_json::array();
    for (const auto& descriptor : descriptors)
    {
        commands.push_back(
            {{"command", descriptor->command}, {"help", descriptor->help}, {"usage", descriptor->usage}});
    }
    return Line({{"ok", true}, {"response", ""}, {"commands", commands}});
}
