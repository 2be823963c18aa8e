/// Lines of the console's socket, down to what the debug commands make of them.
///
/// An input is any number of lines.
#include "interfaces/DiscoveryServicePorticoClientIF.h"
#include "platform/console/LineAnswerer.h"
#include "service/DebugCommands.h"
#include "service/DiscoveryServiceCliClient.h"
#include "tests/fakes/FakeDiscovery.h"
#include "tests/fuzz/FuzzChecks.h"
#include <CLIClient.h>
#include <ProtoToMarkup.h>

#include <nlohmann/json.hpp>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

using namespace SonarixService;
using Fuzz::Require;

namespace
{

/// What is announced has a JSON form, which is how it goes out.
class Gateway final : public DiscoveryServicePorticoClientIF
{
public:
    void Initialize() override {}
    void Shutdown() override {}
    void SendSonarixNotification(const Sonarix::Product& product) override
    {
        ProtoToMarkup::ToJson(product, true, false, false);
    }
};

/// One service for each input: what was made up before does not count.
std::unique_ptr<Console::LineAnswerer> MakeService()
{
    static std::unique_ptr<Console::LineAnswerer> s_made;
    CLIClient::SetInitializeOverride([](const CLIClient::Descriptors& commands, const CLIClient::Handler& handler)
                                     { s_made = std::make_unique<Console::LineAnswerer>(commands, handler); });
    static std::unique_ptr<DiscoveryServiceCliClient> s_client;
    s_client = std::make_unique<DiscoveryServiceCliClient>(nullptr);
    for (const DebugCommands::Command& command : DebugCommands::Table())
    {
        Require(s_client->RegisterCliCmd(command.key, command.words, command.help, command.usage), "twice");
    }
    const auto ssdp = std::make_shared<FakeSsdpDiscoveryProtocol>();
    ssdp->list.add_products();
    ssdp->list.add_products();
    const auto mdns = std::make_shared<FakeMdnsDiscoveryProtocol>();
    mdns->answerAtOnce.emplace();
    const auto commands = std::make_shared<DebugCommands>(DebugCommands::Context{
        nullptr, ssdp, mdns, std::make_shared<Gateway>(), nullptr, [] { return std::string(); }});
    s_client->Initialize([commands](int cmdKey, const std::list<std::string>& arguments)
                         { return commands->HandleCliCmd(cmdKey, arguments); });
    return std::move(s_made);
}

void Check(const std::string& answer)
{
    Require(answer.find('\n') == std::string::npos, "an answer of several lines");
    const nlohmann::json object = nlohmann::json::parse(answer, nullptr, false);
    Require(object.is_object() && object.contains("ok") && object["ok"].is_boolean() && object.contains("response") &&
                object["response"].is_string(),
            "no answer");
    const std::string response = object["response"];
    Require(object["ok"] || !response.empty(), "an error without a word");
    Require(object["ok"] || (response.rfind(" failed: ") == std::string::npos || response.starts_with("unknown")),
            "a command that throws");
    Require(response != "Command not found", "a command without a key");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    Fuzz::Log("6");
    const std::unique_ptr<Console::LineAnswerer> service = MakeService();
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    while (!rest.empty())
    {
        const std::size_t end = std::min(rest.find('\n'), rest.size());
        const Fuzz::TimeLimit limit;
        Check(service->Answer(std::string(rest.substr(0, end))));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return 0;
}
