#include "aggregator/ProductMerge.h"

#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <string>

namespace
{

Sonarix::Product Make(const std::string& text)
{
    Sonarix::Product product;
    EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &product)) << text;
    return product;
}

} // namespace

TEST(ProductMergeTest, LaterReportIsMergedByFieldByKeyOrAsAWhole)
{
    const struct
    {
        const char* older;
        const char* later;
        const char* merged;
    } cases[] = {
        {"productinfo { friendlyname: 'Kitchen' modelname: 'M' multiroom { Grouping_Version { major_version: 3 } } }",
         "productinfo { friendlyname: 'Bath' multiroom { Grouping_Version { minor_version: 4 } } }",
         "productinfo { friendlyname: 'Bath' modelname: 'M'"
         "  multiroom { Grouping_Version { major_version: 3 minor_version: 4 } } }"},
        // The latest element of each key is kept; the elements are sorted by key.
        {"productinfo { icons { url: '/c' width: 1 } icons { url: '/a' width: 2 } icons { url: '/a' width: 3 } }",
         "productinfo { icons { url: '/c' width: 4 } icons { url: '/b' } }",
         "productinfo { icons { url: '/a' width: 3 } icons { url: '/b' } icons { url: '/c' width: 4 } }"},
        {"productinfo { services { serviceid: '2' servicetype: 'old' } services { serviceid: '1' } }",
         "productinfo { services { serviceid: '2' servicetype: 'new' } }",
         "productinfo { services { serviceid: '1' } services { serviceid: '2' servicetype: 'new' } }"},
        // The capabilities are replaced as a whole if the later report has them.
        {"productinfo { capabilities { hasBattery: true supportedWifiBands: 'band' } }",
         "productinfo { capabilities { supportedWifiBands: 'band' } }",
         "productinfo { capabilities { supportedWifiBands: 'band' } }"},
        {"productinfo { capabilities { hasBattery: true } }", "productinfo { }",
         "productinfo { capabilities { hasBattery: true } }"},
        // The merged record has the children of the later report, even if there are none.
        {"productinfo { children { guid: 'a' } }", "productinfo { children { guid: 'b' } }",
         "productinfo { children { guid: 'b' } }"},
        {"productinfo { children { guid: 'a' } }", "productinfo { }", "productinfo { }"},
        // Both sources have reported the product; a record that the later report lacks stays unchanged.
        {"protocols: MDNS productinfo { guid: 'a' } serviceid { type: 't' }", "protocols: SSDP protocols: MDNS",
         "protocols: SSDP protocols: MDNS productinfo { guid: 'a' } serviceid { type: 't' }"},
    };
    for (const auto& [older, later, merged] : cases)
    {
        EXPECT_EQ(SonarixService::MergeProducts(Make(older), Make(later)).ShortDebugString(),
                  Make(merged).ShortDebugString());
    }
}
