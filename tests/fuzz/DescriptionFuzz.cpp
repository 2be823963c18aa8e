/// Passes device descriptions through SsdpDeviceParser. An input is the body of a response.
#include "base/Utf8.h"
#include "runtime/engine/Simulation.h"
#include "schemas/Sonarix.pb.h"
#include "ssdp/SsdpDeviceParser.h"
#include "tests/fakes/FakeHttp.h"
#include "tests/fuzz/FuzzChecks.h"

#include <google/protobuf/text_format.h>

#include <string>

using namespace SonarixService;
using Fuzz::Require;

namespace
{

/// True if the printer's text has an escaped NUL. The printer doubles each backslash of a string.
bool HasNul(const std::string& text)
{
    for (std::size_t at = text.find('\\'); at < text.size(); at = text.find('\\', at + 2))
    {
        if (text.compare(at, 4, "\\000") == 0)
        {
            return true;
        }
    }
    return false;
}

struct Parser
{
    Parser()
    {
        Fuzz::Log("7");
        printer.SetUseUtf8StringEscaping(true);
    }

    void Read(const std::string& body)
    {
        Sonarix::ProductInfo info;
        info.set_guid("a");
        parser.ParseDevice("http://10.0.0.2/", info);
        http.Answer(0, 200, body);
        simulation.RunUntilIdle();
        http.m_urls.clear();
        http.m_callbacks.clear();
    }

    IL::Simulation simulation{1};
    FakeHttp http;
    int results = 0;
    google::protobuf::TextFormat::Printer printer;
    SsdpDeviceParser parser{&http, IL::CreateTask("SsdpDiscoveryTask", ""),
                            [this](SsdpDeviceParser::ParseStatus status, const Sonarix::ProductInfo& info)
                            {
                                ++results;
                                std::string text;
                                Require(printer.PrintToString(info, &text) && Utf8::IsValid(text), "no UTF-8");
                                Require(!HasNul(text), "a NUL");
                                Require(status == SsdpDeviceParser::PARSE_SUCCESS || info.ByteSizeLong() < 30,
                                        "a failure changed the record");
                            }};
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    static Parser s_parser;
    const Fuzz::TimeLimit limit;
    s_parser.results = 0;
    s_parser.Read({reinterpret_cast<const char*>(data), size});
    Require(s_parser.results == 1, "not one result");
    return 0;
}
