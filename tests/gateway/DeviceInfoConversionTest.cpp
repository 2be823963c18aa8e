#include "gateway/DeviceInfoConversion.h"

#include "schemas/SXCommon.pb.h"
#include "schemas/Sonarix.pb.h"
#include "schemas/SonarixPb.pb.h"

#include <gtest/gtest.h>

using namespace SonarixService;

TEST(DeviceInfoConversionTest, AbsentFieldsBecomePresentDefaultsButForAddressAndZoneControl)
{
    SonarixPb::DeviceInfo device;
    const Sonarix::ProductInfo empty = ConvertToProductInfo(device);
    EXPECT_TRUE(empty.has_guid());
    EXPECT_FALSE(empty.has_ipaddress());
    EXPECT_TRUE(empty.multiroom().nowplaying_version().has_major_version());
    EXPECT_FALSE(empty.multiroom().has_zonecontrol_version());
    // What only the product itself may say stays out, or the aggregator would refuse the record.
    EXPECT_FALSE(empty.has_capabilities() || empty.has_configurations() || empty.children_size() > 0);

    SonarixPb::MultiroomVersions& versions = *device.mutable_multiroom_versions();
    int number = 1;
    for (auto* version : {versions.mutable_audio_payload_version(), versions.mutable_audiocontrol_protocol_version(),
                          versions.mutable_clocksync_protocol_version(), versions.mutable_nowplaying_version(),
                          versions.mutable_playbackrequest_version(), versions.mutable_grouping_version()})
    {
        version->set_major_version(number);
        version->set_minor_version(10 * number++);
    }
    // Both families have the same numbers, so that the wire form compares them field by field.
    EXPECT_EQ(ConvertToProductInfo(device).multiroom().SerializeAsString(), versions.SerializeAsString());
}
