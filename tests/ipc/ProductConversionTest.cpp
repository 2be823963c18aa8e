#include "ipc/ProductConversion.h"
#include "schemas/SXCommon.pb.h"
#include "schemas/Sonarix.pb.h"

#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

using namespace SonarixService;

TEST(ProductConversionTest, AllFieldsAreCopiedExceptTheExcludedOnes)
{
    Sonarix::Product product;
    ASSERT_TRUE(google::protobuf::TextFormat::ParseFromString(R"(productinfo {
        macaddress: "1" ipaddress: "2" guid: "3" location: "4" devicetype: "5" presentationurl: "6" friendlyname: "7"
        manufacturer: "8" manufacturerurl: "no" modeldescription: "10" modelname: "11" modelnumber: "12" modelurl: "13"
        serialnumber: "14" udn: "15" upc: "no" ecosystem: "17" producttype: "18" productcolor: "19"
        softwareversion: "20" country: "no"
        multiroom { Audio_Payload_Version { major_version: 1 minor_version: 2 } ZoneControl_Version { major_version: 9 }
            AudioControl_Protocol_Version { major_version: 3 } ClockSync_Protocol_Version { major_version: 4 }
            NowPlaying_Version { major_version: 5 } PlaybackRequest_Version { major_version: 6 }
            Grouping_Version { major_version: 7 minor_version: 8 } }
        icons { mimetype: "m" height: 1 width: 2 depth: 3 url: "u" } icons { url: "second" }
        services { servicetype: "a" serviceid: "b" scpdurl: "c" controlurl: "d" eventsuburl: "e" }
        clockinfo { connection: WIFI clockdomain: "f" leaderelected: true hasbattery: false isclocksynced: true } })",
                                                              &product));
    SonarixPb::DeviceInfo expected;
    ASSERT_TRUE(google::protobuf::TextFormat::ParseFromString(R"(
        macaddress: "1" ipaddress: "2" guid: "3" location: "4" devicetype: "5" presentationurl: "6" friendlyname: "7"
        manufacturer: "8" modeldescription: "10" modelname: "11" modelnumber: "12" modelurl: "13" serialnumber: "14"
        udn: "15" ecosystem: "17" producttype: "18" productcolor: "19" softwareversion: "20"
        multiroom_versions { Audio_Payload_Version { major_version: 1 minor_version: 2 }
            AudioControl_Protocol_Version { major_version: 3 minor_version: 0 }
            ClockSync_Protocol_Version { major_version: 4 minor_version: 0 }
            NowPlaying_Version { major_version: 5 minor_version: 0 }
            PlaybackRequest_Version { major_version: 6 minor_version: 0 }
            Grouping_Version { major_version: 7 minor_version: 8 } }
        iconlist { icon { mimetype: "m" height: 1 width: 2 depth: 3 url: "u" } icon { url: "second" } }
        servicelist { service { serviceType: "a" serviceId: "b" SCPDURL: "c" controlURL: "d" eventSubURL: "e" } }
        mdnsClockInfo { connection: WIFI clockdomain: "f" leaderelected: true hasbattery: false isClockSynced: true })",
                                                              &expected));
    EXPECT_EQ(ProductToDeviceInfo(product).DebugString(), expected.DebugString());
}

TEST(ProductConversionTest, UnsetAndEmptyFieldsStayUnset)
{
    Sonarix::Product product;
    EXPECT_EQ(ProductToDeviceInfo(product).ByteSizeLong(), 0u);
    product.mutable_productinfo()->set_guid("");
    product.mutable_productinfo()->mutable_clockinfo();
    EXPECT_EQ(ProductToDeviceInfo(product).ShortDebugString(), "mdnsClockInfo { }");
    product.mutable_productinfo()->mutable_clockinfo()->set_connection(SXCommon::UNKNOWN);
    EXPECT_TRUE(ProductToDeviceInfo(product).mdnsclockinfo().has_connection());

    EXPECT_EQ(ProductStateToDeviceState(product), SonarixPb::INVALID);
    product.set_state(SXCommon::OFFLINE);
    EXPECT_EQ(ProductStateToDeviceState(product), SonarixPb::OFFLINE);
    product.set_state(SXCommon::ONLINE);
    EXPECT_EQ(ProductStateToDeviceState(product), SonarixPb::ONLINE);
}
