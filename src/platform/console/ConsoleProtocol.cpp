#include "platform/console/ConsoleProtocol.h"

#include <nlohmann/json.hpp>

namespace
{

using nlohmann::ordered_json;

std::string LineFromJson(const ordered_json& object)
{
    return object.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

} // namespace

bool Console::RequestFromLine(const std::string& line, Request& request, std::string& error)
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
    const auto& found = command != object.end() ? command : help;
    if (!found->is_string())
    {
        error = '"' + found.key() + "\" takes a text";
        return false;
    }
    request.kind = command != object.end() ? Request::Kind::COMMAND : Request::Kind::HELP;
    request.text = found->get<std::string>();
    return true;
}

std::string Console::FormatResponse(bool isOk, const std::string& response)
{
    return LineFromJson({{"ok", isOk}, {"response", response}});
}

std::string Console::FormatAsync(const std::string& text)
{
    return LineFromJson({{"async", text}});
}

std::string Console::FormatCommands(const CLIClient::Descriptors& descriptors)
{
    ordered_json commands = ordered_json::array();
    for (const auto& descriptor : descriptors)
    {
        commands.push_back(
            {{"command", descriptor->command}, {"help", descriptor->help}, {"usage", descriptor->usage}});
    }
    return LineFromJson({{"ok", true}, {"response", ""}, {"commands", commands}});
}
