#include "ssdp/SsdpDiscovery.h"

#include "runtime/engine/Simulation.h"
#include "schemas/Sonarix.pb.h"
#include "tests/fakes/FakeGSSDPHandler.h"
#include "tests/fakes/FakeHttp.h"
#include "tests/support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

using namespace SonarixService;
using testing::ElementsAre;
using testing::IsEmpty;
using Handler = GSSDPHandlerIF;
using Scope = SsdpDiscoveryIF;

namespace
{

// The simulation tests cover the ordinary sequences.

struct SsdpDiscoveryTest : testing::Test
{
    static std::string Text(const Sonarix::Product& product)
    {
        return (product.productinfo().has_guid() ? product.productinfo().guid() : "?") + " " +
               SXCommon::ProductState_Name(product.state()) + " " + product.productinfo().friendlyname();
    }
    void Announced(Handler::ResourceStatus status, const std::string& usn)
    {
        handler.resource.Send(status, usn, kLocation, {});
        simulation.RunUntilIdle();
    }
    void Searched()
    {
        handler.status.Send(Handler::SEARCH_COMPLETE, {});
        simulation.RunUntilIdle();
    }
    /// Answers the oldest request for a description.
    void Parsed(const std::string& friendlyName)
    {
        ASSERT_LT(answered, http.m_urls.size());
        http.Answer(answered++, 200, "<root><device><friendlyName>" + friendlyName + "</friendlyName></device></root>");
        simulation.RunUntilIdle();
    }
    std::vector<std::string> Listed()
    {
        Sonarix::ProductList list;
        list.add_products()->set_state(SXCommon::ONLINE); // GetProductList() removes it
        discovery.GetProductList(list);
        std::vector<std::string> texts;
        std::transform(list.products().begin(), list.products().end(), std::back_inserter(texts), Text);
        return texts;
    }
    std::vector<std::string> Reports()
    {
        return std::exchange(reports, {});
    }

    const std::string kUsn = "uuid:Kitchen::urn:schemas-upnp-org:device:MediaRenderer:1";
    const std::string kLocation = "http://10.0.0.2:80/d.xml";
    IL::Simulation simulation{1};
    LogCapture log{"7"};
    FakeGSSDPHandler handler;
    FakeHttp http;
    std::size_t answered = 0;
    std::vector<std::string> reports;
    SsdpDiscovery discovery{&http, "eth7",
                            [this](const Sonarix::Product& product) { reports.push_back(Text(product)); }};
};

TEST_F(SsdpDiscoveryTest, SearchSetsAllDevicesOfflineEvenIfItIsRefused)
{
    Announced(Handler::RESOURCE_AVAILABLE, kUsn);
    EXPECT_THAT(Listed(), ElementsAre("? ONLINE ")) << "before its description";
    handler.isReady = false;
    EXPECT_FALSE(discovery.RefreshDeviceList(static_cast<Scope::SearchScope>(3), 5));
    EXPECT_THAT(Listed(), IsEmpty());
    discovery.RefreshDeviceList(Scope::SEARCH_ALL, 5);
    discovery.RefreshDeviceList(Scope::SEARCH_SERVERS, 5);
    EXPECT_THAT(handler.searches,
                ElementsAre("ssdp:all 5", "ssdp:all 5", "urn:schemas-upnp-org:device:MediaServer:1 5"));
    EXPECT_TRUE(log.Contains("RefreshDeviceList: state=(?), timeoutSec=5"));
}

TEST_F(SsdpDiscoveryTest, DescriptionOfAnUnknownOrRemovedDeviceIsHandled)
{
    // Several USNs of one guid before the first description: the second request has no guid, and its result is dropped.
    Announced(Handler::RESOURCE_AVAILABLE, kUsn);
    Announced(Handler::RESOURCE_AVAILABLE, "uuid:Kitchen::upnp:rootdevice");
    Announced(Handler::RESOURCE_AVAILABLE, "no guid");
    ASSERT_EQ(http.m_urls.size(), 2U);
    EXPECT_TRUE(log.Contains("ParseGuid: Could not parse GUID from usn: no guid"));
    Parsed("One");
    Parsed("Other");
    EXPECT_TRUE(log.Contains("Product Info has no guid. Cannot update map. How could this have happened??"));
    EXPECT_THAT(Reports(), ElementsAre("Kitchen ONLINE One"));
    EXPECT_THAT(Listed(), ElementsAre("Kitchen ONLINE One"));

    // A device that was removed before its description arrives is added without a state, until the next search.
    Announced(Handler::RESOURCE_UNAVAILABLE, kUsn);
    Searched();
    Announced(Handler::RESOURCE_AVAILABLE, kUsn);
    Announced(Handler::RESOURCE_UNAVAILABLE, kUsn);
    Searched();
    Parsed("Late");
    EXPECT_THAT(Reports(), ElementsAre("Kitchen OFFLINE One", "? OFFLINE ", "Kitchen INVALID Late"));
    EXPECT_THAT(Listed(), IsEmpty());
    Searched();
    EXPECT_THAT(Reports(), IsEmpty());
    discovery.RefreshDeviceList(Scope::SEARCH_RENDERERS, 10);
    Searched();
    EXPECT_THAT(Reports(), ElementsAre("Kitchen OFFLINE Late"));
}

} // namespace
