#include "tools/clients/sonarix-ipc/Command.h"

#include "base/Utf8.h"
#include "schemas/SonarixPb.pb.h"
#include "tools/clients/options/TextArgument.h"
#include <ProtoToMarkup.h>

#include <algorithm>
#include <charconv>
#include <net/if.h>
#include <set>
#include <vector>

namespace
{

using Words = std::vector<std::string>;

// Limits of DNS in bytes (RFC 1035 section 2.3.4, RFC 6763 section 6.1).
constexpr std::size_t kMaxLabel = 63;
constexpr std::size_t kMaxText = 255;
constexpr std::size_t kMaxRecord = 65535;

struct Syntax
{
    Command::Verb verb;
    std::set<std::string> options; ///< besides --json
    std::size_t minWords;
    std::size_t maxWords;
    const char* usage;
};

const std::map<std::string, Syntax>& Syntaxes()
{
    static const std::map<std::string, Syntax> syntaxes = {
        {"list", {Command::Verb::LIST, {}, 1, 2, "\"mdns TYPE\" or \"ssdp\""}},
        {"watch", {Command::Verb::WATCH, {"every"}, 1, 2, "\"mdns TYPE\" or \"ssdp\""}},
        {"add", {Command::Verb::ADD, {"interface", "protocol", "keep"}, 3, SIZE_MAX, "TYPE NAME PORT [KEY=VALUE]..."}},
        {"update", {Command::Verb::UPDATE, {"interface", "protocol"}, 3, SIZE_MAX, "TYPE NAME PORT [KEY=VALUE]..."}},
        {"remove", {Command::Verb::REMOVE, {}, 2, 2, "TYPE NAME"}},
        {"announce", {Command::Verb::ANNOUNCE, {}, 1, SIZE_MAX, "FIELD=VALUE..., JSON, @FILE or -"}},
    };
    return syntaxes;
}

bool IsServiceType(const std::string& type)
{
    const std::size_t dot = type.find("._");
    const auto isLabelByte = [](unsigned char byte) { return std::isalnum(byte) != 0 || byte == '-'; };
    return dot != std::string::npos && dot > 1 && dot <= kMaxLabel && type[0] == '_' &&
           std::all_of(type.begin() + 1, type.begin() + static_cast<std::ptrdiff_t>(dot), isLabelByte) &&
           (type.substr(dot) == "._tcp" || type.substr(dot) == "._udp");
}

bool IsInstanceName(const std::string& name)
{
    return !name.empty() && name.size() <= kMaxLabel && Utf8::IsValid(name);
}

bool ReadType(const std::string& word, Command& command, std::string& error)
{
    command.type = word;
    if (!IsServiceType(word))
    {
        error = "\"" + word + "\" is no service type, for example _kova-clock._tcp";
        return false;
    }
    return true;
}

bool ReadSource(const Words& words, bool hasEvery, Command& command, std::string& error)
{
    command.isSsdp = words[0] == "ssdp" && words.size() == 1;
    if (!command.isSsdp && (words[0] != "mdns" || words.size() != 2))
    {
        error = "\"mdns TYPE\" or \"ssdp\" is wanted";
        return false;
    }
    if (command.isSsdp && hasEvery)
    {
        error = "--every is not for ssdp: the service reports each change by itself";
        return false;
    }
    return command.isSsdp || ReadType(words[1], command, error);
}

bool ReadText(const std::string& word, Command& command, std::string& error)
{
    const std::size_t equals = word.find('=');
    const std::string key = word.substr(0, equals);
    if (equals == std::string::npos || equals == 0)
    {
        error = "\"" + word + "\" is no KEY=VALUE";
    }
    else if (word.size() > kMaxText)
    {
        error = key + ": a TXT text has " + std::to_string(kMaxText) + " bytes at most, KEY= included";
    }
    else if (!command.txt.emplace(key, word.substr(equals + 1)).second)
    {
        error = key + " is given twice";
    }
    return error.empty();
}

bool ReadRecord(const Words& words, Command& command, std::string& error)
{
    command.name = words[1];
    if (!ReadType(words[0], command, error))
    {
        return false;
    }
    if (!IsInstanceName(command.name))
    {
        error = "a NAME has 1 to " + std::to_string(kMaxLabel) + " bytes of UTF-8";
        return false;
    }
    if (command.verb == Command::Verb::REMOVE)
    {
        return true;
    }
    const auto port = Options::ParsePort(words[2]);
    if (!port)
    {
        error = "\"" + words[2] + "\" is no port, a number from 1 to 65535";
        return false;
    }
    command.port = *port;
    std::size_t length = 0;
    for (auto word = words.begin() + 3; word != words.end(); ++word)
    {
        length += word->size() + 1;
        if (!ReadText(*word, command, error))
        {
            return false;
        }
    }
    if (length > kMaxRecord)
    {
        error = "all TXT texts together have " + std::to_string(kMaxRecord) + " bytes at most";
    }
    return error.empty();
}

bool SetField(const std::string& word, SonarixPb::DeviceInfo& device, std::string& error)
{
    const std::size_t equals = word.find('=');
    const auto* const field = device.GetDescriptor()->FindFieldByName(word.substr(0, equals));
    if (equals == std::string::npos || field == nullptr || field->type() != field->TYPE_STRING)
    {
        error = "\"" + word + "\" is no FIELD=VALUE of a device, for example friendlyname=Kitchen";
        return false;
    }
    device.GetReflection()->SetString(&device, field, word.substr(equals + 1));
    return true;
}

bool ReadAnnouncement(const Words& words, Command& command, std::string& error)
{
    const auto device = std::make_shared<SonarixPb::DeviceInfo>();
    command.device = device;
    const bool isJson = words.size() == 1 && (words[0] == "-" || words[0].find_first_of("@{") == 0);
    if (isJson)
    {
        std::string text;
        if (!ReadTextArgument(words[0], text, error))
        {
            return false;
        }
        try
        {
            ProtoToMarkup::FromJson(text, device.get());
        }
        catch (const ProtoToMarkup::MarkupError& failure)
        {
            error = failure.what();
            return false;
        }
    }
    else if (!std::all_of(words.begin(), words.end(),
                          [&](const std::string& word) { return SetField(word, *device, error); }))
    {
        return false;
    }
    command.name = device->friendlyname();
    if (!IsInstanceName(command.name))
    {
        error = "an announcement wants a friendlyname of 1 to " + std::to_string(kMaxLabel) + " bytes of UTF-8";
        return false;
    }
    if (!device->has_devicetype())
    {
        device->set_devicetype("RENDERER"); // the service announces only this type
    }
    return true;
}

bool ReadEvery(const std::string& text, Command& command, std::string& error)
{
    double seconds = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    if (failure != std::errc() || end != text.data() + text.size() || !(seconds >= 0.1 && seconds <= 86400))
    {
        error = "--every takes seconds, from 0.1 to 86400";
        return false;
    }
    command.every = std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
    return true;
}

bool ReadOptions(const Options& options, const Syntax& syntax, Command& command, std::string& error)
{
    command.isJson = options.Has("json");
    command.isKept = options.Has("keep");
    for (const char* const name : {"every", "interface", "protocol", "keep"})
    {
        if (options.Has(name) && syntax.options.count(name) == 0)
        {
            error = std::string("--") + name + " is not for this command";
            return false;
        }
    }
    if (const auto every = options.Get("every"); every && !ReadEvery(*every, command, error))
    {
        return false;
    }
    if (const auto name = options.Get("interface"))
    {
        command.interface = static_cast<int>(if_nametoindex(name->c_str()));
        if (command.interface == 0)
        {
            error = "no interface " + *name;
            return false;
        }
    }
    static const std::map<std::string, Command::Protocol> protocols = {
        {"ipv4", Command::Protocol::IPV4}, {"ipv6", Command::Protocol::IPV6}, {"both", Command::Protocol::BOTH}};
    const auto protocol = protocols.find(options.Get("protocol", "ipv4"));
    if (protocol == protocols.end())
    {
        error = "--protocol takes ipv4, ipv6 or both";
        return false;
    }
    command.protocol = protocol->second;
    return true;
}

} // namespace

Options CommandOptions()
{
    return Options({"every", "interface", "protocol"}, {"json", "keep"});
}

bool ReadCommand(const Options& options, Command& command, std::string& error)
{
    if (options.Words().empty())
    {
        error = "no command";
        return false;
    }
    const std::string& verb = options.Words().front();
    const auto syntax = Syntaxes().find(verb);
    if (syntax == Syntaxes().end())
    {
        error = "unknown command " + verb;
        return false;
    }
    const Words words(options.Words().begin() + 1, options.Words().end());
    if (words.size() < syntax->second.minWords || words.size() > syntax->second.maxWords)
    {
        error = verb + " wants " + syntax->second.usage;
        return false;
    }
    command.verb = syntax->second.verb;
    if (!ReadOptions(options, syntax->second, command, error))
    {
        return false;
    }
    switch (command.verb)
    {
    case Command::Verb::LIST:
    case Command::Verb::WATCH:
        return ReadSource(words, options.Has("every"), command, error);
    case Command::Verb::ANNOUNCE:
        return ReadAnnouncement(words, command, error);
    default:
        return ReadRecord(words, command, error);
    }
}
