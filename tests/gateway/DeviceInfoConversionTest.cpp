#include "gateway/DeviceInfoConversion.h"

#include "schemas/SXCommon.pb.h"
#include "schemas/Sonarix.pb.h"
#include "schemas/SonarixPb.pb.h"

#include <gtest/gtest.h>

using namespace SonarixService;

TEST(DeviceInfoConversionTest, AbsentFieldsBecomeDefaultsExceptAddressZoneControl)
{
    SonarixPb::DeviceInfo device;
    const Sonarix::ProductInfo empty = ProductInfoFromDeviceInfo(device);
    EXPECT_TRUE(empty.has_guid());
    EXPECT_FALSE(empty.has_ipaddress());
    EXPECT_TRUE(empty.multiroom().nowplaying_version().has_major_version());
    EXPECT_FALSE(empty.multiroom().has_zonecontrol_version());
    // The aggregator refuses a record that has one of these fields.
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
    // Both messages have the same field numbers, so equal wire forms mean equal fields.
    EXPECT_EQ(ProductInfoFromDeviceInfo(device).multiroom().SerializeAsString(), versions.SerializeAsString());
}
