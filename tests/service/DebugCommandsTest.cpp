#include "service/DebugCommands.h"

#include "tests/service/ControllerFixture.h"
#include "tests/support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

using namespace SonarixService;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace
{

const std::string kNothing = "( 0 products )\n";
const std::string kWren = "FRIENDLYNAME: wren IP: 1:1:1:1 GUID: g1\n( 1 products )\n";
const std::string kNoTesting = "\n ---  Testing devices list -----\n" + kNothing;
const std::string kAddWren = "adddevice guid=g1 friendlyname=wren ipaddress=1:1:1:1";

/// The part of the response to "mdns list" for one type.
std::string Remote(const std::string& type, const std::string& rows)
{
    return "---  Remote devices list  for service name :" + type + "----- \n" + rows;
}
std::string Found(const std::string& guid)
{
    return "FRIENDLYNAME: found IP: 10.0.0.1 GUID: " + guid + "\n( 1 products )\n";
}

Sonarix::ProductList ListOf(const std::vector<std::string>& guids)
{
    Sonarix::ProductList list;
    for (const std::string& guid : guids)
    {
        Sonarix::ProductInfo* const info = list.add_products()->mutable_productinfo();
        info->set_friendlyname("found");
        info->set_ipaddress("10.0.0.1");
        info->set_guid(guid);
    }
    return list;
}

/// Runs commands as the controller has registered them.
class DebugCommandsTest : public ControllerFixture
{
protected:
    DebugCommandsTest()
    {
        m_controller->Initialize();
        m_calls.clear();
    }

    std::string Type(const std::string& line)
    {
        m_calls.clear();
        return m_console.Type("sonarix " + line);
    }
    /// Returns the calls that `line` causes.
    std::vector<std::string> Effect(const std::string& line)
    {
        Type(line);
        return m_calls;
    }
    void Up(const std::string& interfaceName)
    {
        NetManager::Protobuf::NetworkStatus status;
        status.set_isprimaryup(true);
        status.add_interfaces()->set_name(interfaceName);
        m_controller->SetNetworkStatus(status);
    }
};

} // namespace

TEST_F(DebugCommandsTest, CommandsAreRegisteredInOrder)
{
    std::string registered;
    for (const auto& command : m_console.Commands())
    {
        registered += command->command.substr(std::string("sonarix ").size()) + ", ";
        EXPECT_THAT(command->usage, StartsWith(command->command));
        EXPECT_NE(m_console.Type(command->command), "Command not found");
    }
    EXPECT_EQ(registered, "ssdp list, ssdp start, ssdp stop, ssdp removedevice, ssdp adddevice, ssdp clearall, "
                          "mdns list, mdns start, mdns stop, mdns clearall, mdns adddevice, mdns removedevice, "
                          "mdns addservice, mdns removeservice, ");
    EXPECT_EQ(m_console.Commands().at(5)->help, "Add device(s) to the list");
    EXPECT_THAT(m_console.Commands().at(12)->usage, HasSubstr("ecosystem= orb2  modelname=wren"));

    // Without any discovery protocol, each command key has a response.
    const auto alone = std::make_shared<DebugCommands>(DebugCommands::Context{});
    for (int key = -1; key < 17; ++key)
    {
        const bool isNone = key < 0 || key == 9 || key > 14;
        EXPECT_EQ(alone->HandleCliCmd(key, {}) == "Command not found", isNone) << key;
    }
}

TEST_F(DebugCommandsTest, CommandTextIsUniqueWithoutCaseAndBlanks)
{
    LogCapture log;
    DiscoveryServiceCliClient client(nullptr);
    std::string response;
    EXPECT_TRUE(client.RegisterCliCmd(1, "lamp on", "", ""));
    EXPECT_FALSE(client.RegisterCliCmd(2, " LAMP\ton", "", ""));
    EXPECT_FALSE(client.HandleCliCmd("lamp on", {}, response)) << "no handler yet";
    client.Initialize([](int key, const std::list<std::string>& arguments)
                      { return std::to_string(key) + arguments.front(); });
    EXPECT_TRUE(client.HandleCliCmd("Lamp   On", {"x"}, response));
    EXPECT_EQ(response, "1x");
    EXPECT_FALSE(client.HandleCliCmd("lamp off", {}, response));
    EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 3U) << log.Text();
}

TEST_F(DebugCommandsTest, SsdpStartAndStopUseTheConsolesOwnFlag)
{
    m_ssdp->list = ListOf({"a"});
    m_ssdp->list.mutable_products(0)->mutable_productinfo()->set_ecosystem("ORB2");
    m_ssdp->list.mutable_products(0)->mutable_productinfo()->mutable_clockinfo()->set_clockdomain("c");
    EXPECT_EQ(Type("ssdp list"), "---  Remote SSDP Product list ----- \n"
                                 "FRIENDLYNAME: found IP: 10.0.0.1 GUID: a ECOSYSTEM: ORB2 ECOCLOCK: \n"
                                 "clockdomain: \"c\"\n\n( 1 products )\n"
                                 "\n ---  Testing device list ----- \n" +
                                     kNothing);
    EXPECT_EQ(Type("ssdp start"), "SSDP discovery is already running");
    EXPECT_THAT(m_calls, IsEmpty());
    Type("ssdp " + kAddWren);
    EXPECT_EQ(Type("ssdp stop"), "");
    EXPECT_THAT(m_calls, ElementsAre("ssdp Stop", "gateway OFFLINE g1", "ipc OFFLINE g1"));

    Up("eth0"); // the controller starts SSDP; the console's flag is unchanged
    EXPECT_EQ(Type("ssdp list"), "( SSDP not running - here is the Testing device list )\n" + kNothing);
    Type("ssdp " + kAddWren);
    EXPECT_EQ(Type("SSDP   Stop"), "SSDP discovery is already stopped\n( Here is the Testng device list )\n" + kWren);
    EXPECT_THAT(m_calls, IsEmpty());
    EXPECT_THAT(Effect("ssdp start"), ElementsAre("ssdp Start eth0"));
}

TEST_F(DebugCommandsTest, MdnsStartAndStopUseTheConsolesOwnFlag)
{
    EXPECT_EQ(Type("mdns start"), "MDNS discovery is already running");
    Type("mdns " + kAddWren);
    EXPECT_EQ(Type("mdns stop"), "");
    EXPECT_THAT(m_calls, ElementsAre("mdns Stop", "gateway OFFLINE g1", "ipc OFFLINE g1"));
    EXPECT_EQ(Type("mdns stop"), "MDNS discovery is already stopped\n( Here is the Testing device list )\n" + kNothing);
    EXPECT_EQ(Type("mdns list"), "( MDNS not running! )\n" + kNoTesting);
    for (const char* line : {"mdns addservice type=_a._tcp", "mdns removeservice type=_a._tcp", "mdns clearall"})
    {
        EXPECT_THAT(Effect(line), IsEmpty()) << line;
    }
    EXPECT_THAT(Effect("mdns start"), ElementsAre("mdns Start"));
}

TEST_F(DebugCommandsTest, TestingProductsAreAnnouncedInOrder)
{
    EXPECT_EQ(Type("ssdp adddevice friendlyname=old guid=g1 nonsense=1 FRIENDLYNAME=x"),
              "FRIENDLYNAME: old IP:  GUID: g1\n( 1 products )\n");
    EXPECT_THAT(m_calls, ElementsAre("gateway ONLINE g1", "ipc ONLINE g1"));
    EXPECT_EQ(Type("ssdp adddevice guid=g1=more friendlyname=wren ipaddress=1:1:1:1"), kWren)
        << "the information of the product with that guid is replaced";
    Type("ssdp adddevice guid=g2 friendlyname=\"Living Room\" ipaddress=2:2:2:2");
    EXPECT_EQ(Type("ssdp removedevice 9:9:9:9 ipaddress=1:1:1:1"),
              "FRIENDLYNAME: wren IP: 1:1:1:1 GUID: g1\n"
              "FRIENDLYNAME: Living Room IP: 2:2:2:2 GUID: g2\n( 2 products )\n");
    EXPECT_THAT(m_calls, IsEmpty());
    EXPECT_EQ(Type("ssdp removedevice 2:2:2:2 1:1:1:1"), kNothing);
    EXPECT_THAT(m_calls, ElementsAre("gateway OFFLINE g2", "ipc OFFLINE g2", "gateway OFFLINE g1", "ipc OFFLINE g1"));

    // Each protocol has its own list of testing products. Only `mdns clearall` also reports the products found by mDNS
    // as OFFLINE.
    Type("mdns adddevice guid=g3");
    EXPECT_EQ(Type("ssdp removedevice 1:1:1:1"), kNothing);
    EXPECT_EQ(Type("mdns clearall _b._tcp"), "Offline device list cleared");
    m_mdns->AnswerList(ListOf({"a", "b"}));
    m_simulation.RunUntilIdle();
    EXPECT_THAT(m_calls, ElementsAre("mdns GetProductList _b._tcp", "gateway OFFLINE g3", "ipc OFFLINE g3",
                                     "gateway OFFLINE a", "ipc OFFLINE a", "gateway OFFLINE b", "ipc OFFLINE b"));
}

TEST_F(DebugCommandsTest, SsdpClearallAnnouncesMinOfBothListsTwice)
{
    Type("ssdp adddevice guid=g1");
    Type("ssdp adddevice guid=g2");
    m_ssdp->list = ListOf({"a"});
    EXPECT_EQ(Type("ssdp clearall"), "Offline device list cleared");
    EXPECT_THAT(m_calls, ElementsAre("ssdp GetProductList", "gateway OFFLINE g1", "ipc OFFLINE g1",
                                     "gateway OFFLINE g1", "ipc OFFLINE g1", "gateway OFFLINE g2", "ipc OFFLINE g2"));
    m_ssdp->list = ListOf({"a", "b", "c"});
    Type("ssdp adddevice guid=g1");
    EXPECT_THAT(Effect("ssdp clearall"), ElementsAre("ssdp GetProductList", "gateway OFFLINE g1", "ipc OFFLINE g1",
                                                     "gateway OFFLINE g1", "ipc OFFLINE g1"));
    EXPECT_THAT(Effect("ssdp clearall"), ElementsAre("ssdp GetProductList"));
}

TEST_F(DebugCommandsTest, MdnsListWaitsOneSecondPerType)
{
    m_simulation.Schedule(std::chrono::milliseconds(900), [this] { m_mdns->AnswerList(ListOf({"a"})); });
    const auto begin = m_simulation.NowMs();
    const std::string renderers = Remote("_kova-lanyard._tcp", Found("a"));
    EXPECT_EQ(Type("mdns list"), renderers + kNoTesting) << "no answer for the clock type";
    EXPECT_EQ(m_simulation.NowMs() - begin, 1900);
    EXPECT_THAT(m_calls, ElementsAre("mdns GetProductList _kova-lanyard._tcp", "mdns GetProductList _kova-clock._tcp"));
    EXPECT_TRUE(m_mdns->AnswerList(ListOf({"late"})));

    // A late answer for the renderers does not end the wait for the clocks.
    m_simulation.Schedule(std::chrono::milliseconds(1500), [this] { m_mdns->AnswerList(ListOf({"a"})); });
    m_simulation.Schedule(std::chrono::milliseconds(1600), [this] { m_mdns->AnswerList(ListOf({"b"})); });
    EXPECT_EQ(Type("mdns list"), renderers + Remote("_kova-clock._tcp", Found("b")) + kNoTesting);

    m_mdns->answerAtOnce.emplace();
    EXPECT_EQ(Type("mdns list _foo._tcp"), Remote("_foo._tcp", kNothing) + kNoTesting);

    m_mdns->answerAtOnce.reset();
    Type("mdns clearall");
    m_controller.reset();
    m_console.Forget();
    m_calls.clear();
    EXPECT_TRUE(m_mdns->AnswerList(ListOf({"late"})));
    m_simulation.RunFor(std::chrono::hours(1));
    EXPECT_THAT(m_calls, IsEmpty());
}

TEST_F(DebugCommandsTest, ServiceArgumentsSetIdAndTxtRecord)
{
    EXPECT_EQ(Type("mdns addservice type=_t._tcp. name=n domain=d guid=1 empty= guid=2=3 Name=x"), "");
    EXPECT_THAT(m_calls, ElementsAre(StartsWith("mdns AddService")));
    EXPECT_EQ(m_mdns->lastService.ShortDebugString(),
              "id { interface: -1 name: \"n\" type: \"_t._tcp.\" domain: \"d\" } "
              "txt { key: \"guid\" value: \"1\" } txt { key: \"empty\" value: \"\" } "
              "txt { key: \"guid\" value: \"2\" } txt { key: \"Name\" value: \"x\" }");
    EXPECT_EQ(Type("mdns removeservice type=_t._tcp."), "");
    EXPECT_THAT(m_calls, ElementsAre(StartsWith("mdns RemoveService")));
    EXPECT_EQ(m_mdns->lastService.ShortDebugString(), "id { type: \"_t._tcp.\" }");
}

TEST_F(DebugCommandsTest, InvalidArgumentsAreSkippedWithOneLine)
{
    m_mdns->answerAtOnce.emplace();
    const char* const lines[] = {
        "ssdp adddevice guid=g1 ecosystem= orb2 =x friendlyname=wren ipaddress=1:1:1:1",
        "ssdp adddevice",
        "ssdp adddevice wren 1:1:1:1",
        "ssdp removedevice",
        "ssdp list please now",
        "mdns list _a._tcp _b._tcp",
        "mdns addservice",
        "mdns removeservice",
        "mdns removeservice type[_t._tcp.]",
    };
    for (const char* line : lines)
    {
        LogCapture log;
        const std::string response = Type(line);
        EXPECT_EQ(log.Count(DPrint::LEVEL_WARNING), 1U) << line << '\n' << log.Text();
        if (std::string(line).starts_with("ssdp"))
        {
            EXPECT_THAT(response, EndsWith(kWren)) << line;
        }
    }
    EXPECT_THAT(Effect("mdns addservice name"), IsEmpty());
}
