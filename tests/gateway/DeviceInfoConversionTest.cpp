#include "DeviceInfoConversion.h"

#include "SXCommon.pb.h"
#include "Sonarix.pb.h"
#include "SonarixPb.pb.h"

#include <gtest/gtest.h>

using namespace SonarixService;

TEST(DeviceInfoConversionTest, AbsentFieldsBecomePresentDefaultsButForTheAddress)
{
    const Sonarix::ProductInfo info = ConvertToProductInfo(SonarixPb::DeviceInfo());
    EXPECT_TRUE(info.has_guid());
    EXPECT_TRUE(info.has_country());
    EXPECT_FALSE(info.has_ipaddress());
    ASSERT_TRUE(info.has_multiroom());
    EXPECT_TRUE(info.multiroom().nowplaying_version().has_major_version());
    EXPECT_EQ(info.multiroom().nowplaying_version().major_version(), 0);

    // What only the product itself may say stays out, or the aggregator would refuse the record.
    EXPECT_FALSE(info.has_capabilities());
    EXPECT_FALSE(info.has_configurations());
    EXPECT_EQ(info.children_size(), 0);
}

TEST(DeviceInfoConversionTest, VersionsGoToTheFieldOfTheSameNameAndZoneControlStaysAbsent)
{
    SonarixPb::DeviceInfo device;
    device.set_ipaddress("10.0.0.7");
    SonarixPb::MultiroomVersions* versions = device.mutable_multiroom_versions();
    int number = 1;
    for (SonarixPb::ProtocolVersion* version :
         {versions->mutable_audio_payload_version(), versions->mutable_audiocontrol_protocol_version(),
          versions->mutable_clocksync_protocol_version(), versions->mutable_nowplaying_version(),
          versions->mutable_playbackrequest_version(), versions->mutable_zonecontrol_version(),
          versions->mutable_grouping_version()})
    {
        version->set_major_version(number);
        version->set_minor_version(10 * number++);
    }

    const Sonarix::ProductInfo info = ConvertToProductInfo(device);
    EXPECT_EQ(info.ipaddress(), "10.0.0.7");

    // Both families have the same numbers, so that the wire form compares them field by field.
    versions->clear_zonecontrol_version();
    EXPECT_EQ(info.multiroom().SerializeAsString(), versions->SerializeAsString());
    EXPECT_FALSE(info.multiroom().has_zonecontrol_version());
}
