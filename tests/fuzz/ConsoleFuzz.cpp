/// Fuzzes the lines of the console's socket and the debug commands behind them. An input has any number of lines.
#include "interfaces/DiscoveryServicePorticoClientIF.h"
#include "platform/console/RequestHandler.h"
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

/// Requires that each announced product has a JSON form, in which the gateway gets it.
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

/// Creates a new service for each input, so that testing products of earlier inputs have no effect.
std::unique_ptr<Console::RequestHandler> MakeService()
{
    static std::unique_ptr<Console::RequestHandler> s_made;
    CLIClient::s_initializeOverride.Set([](const CLIClient::Descriptors& commands, const CLIClient::Handler& handler)
                                        { s_made = std::make_unique<Console::RequestHandler>(commands, handler); });
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
    Require(answer.find('\n') == std::string::npos, "a response of several lines");
    const nlohmann::json object = nlohmann::json::parse(answer, nullptr, false);
    Require(object.is_object() && object.contains("ok") && object["ok"].is_boolean() && object.contains("response") &&
                object["response"].is_string(),
            "not a response");
    const std::string response = object["response"];
    Require(object["ok"] || !response.empty(), "an error without a text");
    Require(object["ok"] || (response.rfind(" failed: ") == std::string::npos || response.starts_with("unknown")),
            "a command that throws");
    Require(response != "Command not found", "a command without a key");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    Fuzz::Log("6");
    const std::unique_ptr<Console::RequestHandler> service = MakeService();
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    while (!rest.empty())
    {
        const std::size_t end = std::min(rest.find('\n'), rest.size());
        const Fuzz::TimeLimit limit;
        Check(service->Handle(std::string(rest.substr(0, end))));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return 0;
}
