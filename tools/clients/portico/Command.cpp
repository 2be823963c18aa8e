#include "tools/clients/portico/Command.h"

#include "tools/clients/options/TextArgument.h"

#include <nlohmann/json.hpp>

#include <map>
#include <vector>

namespace
{

bool ReadBody(const std::string& word, std::string& body, std::string& error)
{
    if (!ReadTextArgument(word, body, error))
    {
        return false;
    }
    if (!nlohmann::json::accept(body))
    {
        error = "the body is no JSON";
        return false;
    }
    return true;
}

bool ReadVerb(const std::string& word, Command& command)
{
    static const std::map<std::string, Portico::Verb> verbs = {{"get", Portico::Verb::GET},
                                                               {"post", Portico::Verb::POST},
                                                               {"put", Portico::Verb::PUT},
                                                               {"delete", Portico::Verb::DELETE}};
    command.isWatch = word == "watch";
    const auto found = verbs.find(word);
    if (found != verbs.end())
    {
        command.verb = found->second;
    }
    return command.isWatch || found != verbs.end();
}

} // namespace

bool ReadCommand(const Options& options, Command& command, std::string& error)
{
    const std::vector<std::string>& words = options.Words();
    const auto port = Options::ParsePort(options.Get("port", "8084"));
    if (!port)
    {
        error = "--port takes a number from 1 to 65535";
        return false;
    }
    command.port = *port;
    command.host = options.Get("host", "localhost");
    command.guid = options.Get("guid", "");
    if (words.empty() || !ReadVerb(words[0], command))
    {
        error = words.empty() ? "no command" : "unknown command " + words[0];
        return false;
    }
    if (words.size() < 2 || !words[1].starts_with("/"))
    {
        error = words[0] + " needs a path, which begins with \"/\"";
        return false;
    }
    command.path = words[1];
    const bool takesBody = !command.isWatch && command.verb != Portico::Verb::GET;
    if (words.size() > (takesBody ? 3U : 2U))
    {
        error = "too many words: " + words.back();
        return false;
    }
    if (takesBody)
    {
        return ReadBody(words.size() == 3 ? words[2] : "{}", command.body, error);
    }
    return true;
}
