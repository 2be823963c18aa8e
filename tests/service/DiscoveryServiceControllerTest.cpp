#include "tests/service/ControllerFixture.h"
#include <ProtoToMarkup.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using namespace SonarixService;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

NetManager::Protobuf::NetworkStatus Status(const std::string& json)
{
    NetManager::Protobuf::NetworkStatus status;
    ProtoToMarkup::FromJson(json, &status);
    return status;
}

const NetManager::Protobuf::NetworkStatus kUpWired = Status(
    R"({"isPrimaryUp":true,"primary":"WIRED_ETH","interfaces":[{"type":"WIRELESS","name":"wlan0"},{"type":"WIRED_ETH","name":"eth0"},{"type":"WIRED_ETH","name":"eth1"}]})");
const NetManager::Protobuf::NetworkStatus kUpWireless =
    Status(R"({"isPrimaryUp":true,"primary":"WIRELESS","interfaces":[{"type":"WIRELESS","name":"wlan0"}]})");
const NetManager::Protobuf::NetworkStatus kDown =
    Status(R"({"isPrimaryUp":false,"primary":"WIRED_ETH","interfaces":[{"type":"WIRED_ETH","name":"eth0"}]})");

class DiscoveryServiceControllerTest : public ControllerFixture
{
protected:
    /// Returns the calls that `status` causes.
    std::vector<std::string> Effect(const NetManager::Protobuf::NetworkStatus& status)
    {
        m_calls.clear();
        m_controller->SetNetworkStatus(status);
        return m_calls;
    }
};

} // namespace

TEST_F(DiscoveryServiceControllerTest, InitializeStartsAndDestructorStopsInOrder)
{
    EXPECT_THAT(m_calls, IsEmpty());
    m_controller->Initialize();
    EXPECT_THAT(m_calls, ElementsAre("gateway Initialize", "ipc Initialize"));
    EXPECT_EQ(m_portico.Made().size(), 1U);
    m_calls.clear();
    m_controller.reset();
    EXPECT_THAT(m_calls, ElementsAre("mdns Stop", "ssdp Stop", "gateway Shutdown", "ipc Shutdown"));
}

TEST_F(DiscoveryServiceControllerTest, DiscoveryStartsAndStopsAtEdges)
{
    EXPECT_THAT(Effect(kDown), IsEmpty()) << "down before any up";
    EXPECT_THAT(Effect(kUpWired), ElementsAre("mdns Start", "ssdp Start eth0", "mdns NetworkWentUp"));
    EXPECT_THAT(Effect(kUpWired), IsEmpty());
    EXPECT_THAT(Effect(kUpWireless), IsEmpty()) << "a change of interface restarts nothing";
    EXPECT_THAT(Effect(kDown), ElementsAre("mdns NetworkWentDown", "mdns Stop", "ssdp Stop"));
    EXPECT_THAT(Effect(kDown), IsEmpty());
    EXPECT_THAT(Effect(kUpWireless), ElementsAre("mdns Start", "ssdp Start wlan0", "mdns NetworkWentUp"))
        << "the interface of the new status";
}

TEST_F(DiscoveryServiceControllerTest, StatusWithoutAPrimaryInterfaceIsDown)
{
    const char* const nameless[] = {
        R"({"isPrimaryUp":true,"primary":"WIRED_ETH"})",
        R"({"isPrimaryUp":true,"primary":"WIRED_USB","interfaces":[{"type":"WIRED_ETH","name":"eth0"}]})",
        R"({"isPrimaryUp":true,"primary":"WIRED_ETH","interfaces":[{"type":"WIRED_ETH"},{"type":"WIRED_ETH","name":"eth1"}]})",
        "{}",
    };
    for (const char* status : nameless)
    {
        EXPECT_THAT(Effect(kUpWired), ElementsAre("mdns Start", "ssdp Start eth0", "mdns NetworkWentUp"));
        EXPECT_THAT(Effect(Status(status)), ElementsAre("mdns NetworkWentDown", "mdns Stop", "ssdp Stop")) << status;
        EXPECT_EQ(m_controller->GetPrimaryInterfaceName(), "") << status;
    }

    // An unset type, of `primary` or of an interface, has the first value of the enumeration.
    EXPECT_THAT(Effect(Status(R"({"isPrimaryUp":true,"interfaces":[{"name":"usb0"}]})")),
                ElementsAre("mdns Start", "ssdp Start usb0", "mdns NetworkWentUp"));
}
