#include "tools/clients/sonarix-console/ConsoleMessages.h"

#include <nlohmann/json.hpp>

namespace
{

using nlohmann::json;

std::string Request(const char* key, const std::string& text)
{
    return json({{key, text}}).dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string Text(const json& object, const char* key)
{
    const auto found = object.find(key);
    return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

} // namespace

std::string ConsoleMessages::CommandRequest(const std::string& command)
{
    return Request("command", command);
}

std::string ConsoleMessages::HelpRequest(const std::string& words)
{
    return Request("help", words);
}

ConsoleMessages::Message ConsoleMessages::MessageFromLine(const std::string& line)
{
    Message message;
    const json object = json::parse(line, nullptr, false);
    if (!object.is_object())
    {
        return message;
    }
    const auto ok = object.find("ok");
    if (ok != object.end() && ok->is_boolean())
    {
        message.kind = Message::Kind::RESPONSE;
        message.isOk = ok->get<bool>();
        message.text = Text(object, "response");
    }
    else if (object.contains("async"))
    {
        message.kind = Message::Kind::ASYNC;
        message.text = Text(object, "async");
    }
    const auto commands = object.find("commands");
    if (commands != object.end() && commands->is_array())
    {
        for (const json& command : *commands)
        {
            if (command.is_object())
            {
                message.commands.push_back({Text(command, "command"), Text(command, "help"), Text(command, "usage")});
            }
        }
    }
    return message;
}

std::string ConsoleMessages::Quoted(const std::string& word)
{
    if (!word.empty() && word.find_first_of(" \t\"") == std::string::npos)
    {
        return word;
    }
    std::string quoted = "\"";
    for (const char letter : word)
    {
        quoted += letter == '"' || letter == '\\' ? "\\" : "";
        quoted += letter;
    }
    return quoted + '"';
}
