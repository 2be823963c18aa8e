#include "SsdpDiscovery.h"

#include "FakeGSSDPHandler.h"
#include "LogCapture.h"
#include "Simulation.h"
#include "Sonarix.pb.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

using namespace SonarixService;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using Handler = GSSDPHandlerIF;
using Parser = SsdpDeviceParserIF;
using Scope = SsdpDiscoveryIF;

namespace
{

/// Requests wait here until the test answers them.
struct FakeParser final : Parser
{
    using Requests = std::vector<std::pair<std::string, Sonarix::ProductInfo>>;
    explicit FakeParser(Requests& list)
        : requests(list)
    {
    }
    void ParseDevice(std::string location, Sonarix::ProductInfo info) override
    {
        requests.emplace_back(std::move(location), std::move(info));
    }
    Requests& requests;
};

struct SsdpDiscoveryTest : testing::Test
{
    void Start(bool hasCallback = true)
    {
        discovery = std::make_unique<SsdpDiscovery>(
            [this](NotifyTargetTaskIF*, const ParseCallback& callback)
            {
                parsed = callback;
                return std::make_unique<FakeParser>(requests);
            },
            "eth7",
            hasCallback ? Callback<Sonarix::Product>([this](const Sonarix::Product& product)
                                                     { reports.push_back(Text(product)); })
                        : Callback<Sonarix::Product>());
    }
    static std::string Text(const Sonarix::Product& product)
    {
        return (product.productinfo().has_guid() ? product.productinfo().guid() : "?") + " " +
               SXCommon::ProductState_Name(product.state()) + " " + product.productinfo().friendlyname();
    }

    void Sighted(const std::string& usn, const std::string& location)
    {
        handler.resource.Send(Handler::RESOURCE_AVAILABLE, usn, location, {});
        simulation.RunUntilIdle();
    }
    void Byebye(const std::string& usn)
    {
        handler.resource.Send(Handler::RESOURCE_UNAVAILABLE, usn, "", {});
        simulation.RunUntilIdle();
    }
    void Searched()
    {
        handler.status.Send(Handler::SEARCH_COMPLETE, {});
        simulation.RunUntilIdle();
    }
    /// Answers the oldest request.
    void Parsed(Parser::ParseStatus status, const std::string& friendlyName = "")
    {
        ASSERT_FALSE(requests.empty());
        Sonarix::ProductInfo info = requests.front().second;
        requests.erase(requests.begin());
        info.set_friendlyname(friendlyName);
        parsed(status, info);
        simulation.RunUntilIdle();
    }
    std::vector<std::string> Listed()
    {
        Sonarix::ProductList list;
        list.add_products()->set_state(SXCommon::ONLINE); // goes
        discovery->GetProductList(list);
        std::vector<std::string> texts;
        for (const Sonarix::Product& product : list.products())
        {
            texts.push_back(Text(product));
        }
        return texts;
    }
    std::vector<std::string> Reports()
    {
        return std::exchange(reports, {});
    }

    IL::Simulation simulation{1};
    LogCapture log{"7"};
    FakeGSSDPHandler handler;
    FakeParser::Requests requests;
    ParseCallback parsed;
    std::vector<std::string> reports;
    std::unique_ptr<SsdpDiscovery> discovery;
};

const std::string kUsn = "uuid:Kitchen::urn:schemas-upnp-org:device:MediaRenderer:1";
const std::string kLocation = "http://10.0.0.2:80/d.xml";

TEST_F(SsdpDiscoveryTest, ADeviceIsReportedWithItsDescriptionAndLoweredByEachSearch)
{
    Start();
    EXPECT_EQ(handler.iface, "eth7");
    Sighted(kUsn, kLocation);
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(requests[0].first, kLocation);
    EXPECT_EQ(requests[0].second.guid() + " " + requests[0].second.location() + " " + requests[0].second.ipaddress(),
              "Kitchen " + kLocation + " 10.0.0.2");
    EXPECT_THAT(Reports(), IsEmpty()) << "not before the description";
    EXPECT_THAT(Listed(), ElementsAre("? ONLINE ")) << "but listed";
    Parsed(Parser::PARSE_SUCCESS, "Old");
    EXPECT_THAT(Reports(), ElementsAre("Kitchen ONLINE Old"));

    handler.isReady = false;
    EXPECT_FALSE(discovery->RefreshDeviceList(static_cast<Scope::SearchScope>(3), 5));
    EXPECT_THAT(Listed(), IsEmpty()) << "the flags are lowered, whatever becomes of the search";
    discovery->RefreshDeviceList(Scope::SEARCH_ALL, 5);
    discovery->RefreshDeviceList(Scope::SEARCH_SERVERS, 5);
    EXPECT_THAT(handler.searches,
                ElementsAre("ssdp:all 5", "ssdp:all 5", "urn:schemas-upnp-org:device:MediaServer:1 5"));
    EXPECT_TRUE(log.Contains("RefreshDeviceList: state=(?), timeoutSec=5"));
}

TEST_F(SsdpDiscoveryTest, DescriptionsThatComeLateTwiceOrNotAtAll)
{
    Start();
    // Several USNs of one guid before the first description: the second request has no guid, and is dropped.
    Sighted(kUsn, kLocation);
    Sighted("uuid:Kitchen::upnp:rootdevice", kLocation);
    ASSERT_EQ(requests.size(), 2U);
    EXPECT_FALSE(requests[1].second.has_guid());
    Parsed(Parser::PARSE_SUCCESS, "One");
    Parsed(Parser::PARSE_HTTP_ERROR);
    EXPECT_TRUE(log.Contains("Product Info has no guid. Cannot update map. How could this have happened??"));
    EXPECT_THAT(Reports(), ElementsAre("Kitchen ONLINE One"));

    // A new location counts when its description has been read, and does not raise a device.
    const std::string moved = "https://10.0.0.9/d.xml";
    discovery->RefreshDeviceList(Scope::SEARCH_RENDERERS, 10);
    Sighted(kUsn, moved);
    EXPECT_EQ(requests.at(0).second.friendlyname() + " " + requests.at(0).second.ipaddress(), "One 10.0.0.9/d.xml");
    Sighted(kUsn, moved);
    ASSERT_EQ(requests.size(), 2U);
    Parsed(Parser::PARSE_SUCCESS, "Two");
    EXPECT_THAT(Reports(), ElementsAre("Kitchen OFFLINE Two"));
    Sighted(kUsn, moved);
    EXPECT_THAT(Reports(), ElementsAre("Kitchen ONLINE Two"));
    Parsed(Parser::PARSE_SUCCESS, "Three");
    EXPECT_THAT(Reports(), ElementsAre("Kitchen ONLINE Three"));

    // A description that cannot be read any more takes the device away, without a word.
    Sighted(kUsn, kLocation);
    Parsed(Parser::PARSE_XML_ERROR);
    EXPECT_THAT(Listed(), IsEmpty());
    Sighted(kUsn, "");
    Parsed(Parser::PARSE_NO_DATA);
    EXPECT_THAT(Listed(), IsEmpty());
    Sighted("no guid", kLocation);
    EXPECT_TRUE(log.Contains("ParseGuid: Could not parse GUID from usn: no guid"));
    EXPECT_TRUE(requests.empty());

    // One that has been removed meanwhile comes back without a state, for one search.
    Sighted(kUsn, kLocation);
    Byebye(kUsn);
    Searched();
    EXPECT_THAT(Reports(), ElementsAre("? OFFLINE "));
    Parsed(Parser::PARSE_SUCCESS, "Late");
    EXPECT_THAT(Reports(), ElementsAre("Kitchen INVALID Late"));
    Searched();
    EXPECT_THAT(Reports(), IsEmpty());
    EXPECT_THAT(Listed(), IsEmpty());
    discovery->RefreshDeviceList(Scope::SEARCH_RENDERERS, 10);
    Searched();
    EXPECT_THAT(Reports(), ElementsAre("Kitchen OFFLINE Late"));
    EXPECT_TRUE(log.Contains("#### SSDP device list ####"));
}

TEST_F(SsdpDiscoveryTest, ItsEndReportsEveryDeviceOfflineAndNothingComesAfterwards)
{
    Start();
    Sighted("uuid:b", "http://10.0.0.2:80/");
    Sighted("uuid:a", "http://10.0.0.3:80/");
    Parsed(Parser::PARSE_SUCCESS, "B");
    Parsed(Parser::PARSE_SUCCESS, "A");
    Sighted("uuid:c", "http://10.0.0.4:80/");
    Reports();
    handler.resource.Send(Handler::RESOURCE_AVAILABLE, "uuid:d", "http://10.0.0.5:80/", {}); // on its way
    discovery.reset();
    const std::vector<std::string> last = Reports();
    handler.resource.Send(Handler::RESOURCE_AVAILABLE, "uuid:e", "http://10.0.0.5:80/", {});
    handler.status.Send(Handler::SEARCH_COMPLETE, {});
    Parsed(Parser::PARSE_SUCCESS, "C");
    simulation.RunFor(1h);
    EXPECT_THAT(last, ElementsAre("a OFFLINE A", "b OFFLINE B", "? OFFLINE "));
    EXPECT_THAT(Reports(), IsEmpty());

    Start(false); // nobody listens
    Sighted("uuid:b", "http://10.0.0.2:80/");
    Parsed(Parser::PARSE_SUCCESS, "B");
    EXPECT_THAT(Listed(), ElementsAre("b ONLINE B"));
}

} // namespace
