#include "tools/clients/sonarix-console/Wire.h"

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

std::string Wire::AskToRun(const std::string& command)
{
    return Request("command", command);
}

std::string Wire::AskForHelp(const std::string& words)
{
    return Request("help", words);
}

Wire::Line Wire::Read(const std::string& text)
{
    Line line;
    const json object = json::parse(text, nullptr, false);
    if (!object.is_object())
    {
        return line;
    }
    const auto ok = object.find("ok");
    if (ok != object.end() && ok->is_boolean())
    {
        line.kind = Line::Kind::ANSWER;
        line.isOk = ok->get<bool>();
        line.text = Text(object, "response");
    }
    else if (object.contains("async"))
    {
        line.kind = Line::Kind::ASYNC;
        line.text = Text(object, "async");
    }
    const auto commands = object.find("commands");
    if (commands != object.end() && commands->is_array())
    {
        for (const json& command : *commands)
        {
            if (command.is_object())
            {
                line.commands.push_back({Text(command, "command"), Text(command, "help"), Text(command, "usage")});
            }
        }
    }
    return line;
}

std::string Wire::Quoted(const std::string& word)
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
