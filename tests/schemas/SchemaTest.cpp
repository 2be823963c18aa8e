// The records' identity on the wire and in JSON: numbers, names, defaults and the mark of the schema.
#include "HubApi.pb.h"
#include "NetManager.pb.h"
#include "ProtoToMarkup.h"
#include "ProtoToMarkup/MarkupOptions.pb.h"
#include "SXCommon.pb.h"
#include "Sonarix.pb.h"
#include "SonarixPb.pb.h"

#include <google/protobuf/descriptor.h>
#include <gtest/gtest.h>

#include <set>
#include <sstream>

using google::protobuf::Descriptor;
using google::protobuf::DescriptorPool;
using google::protobuf::EnumDescriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::FileDescriptor;

namespace
{

/// "1 guid, 2 name"; a repeated field with "*", a required one with "!".
std::string FieldsOf(const std::string& name)
{
    const Descriptor* const type = DescriptorPool::generated_pool()->FindMessageTypeByName(name);
    std::ostringstream text;
    for (int index = 0; type != nullptr && index < type->field_count(); ++index)
    {
        const FieldDescriptor& field = *type->field(index);
        text << (index == 0 ? "" : ", ") << field.number() << (field.is_repeated() ? "* " : "")
             << (field.is_required() ? "! " : "") << (field.is_optional() ? " " : "") << field.name();
    }
    return text.str();
}

std::string ValuesOf(const std::string& name)
{
    const EnumDescriptor* const type = DescriptorPool::generated_pool()->FindEnumTypeByName(name);
    std::ostringstream text;
    for (int index = 0; type != nullptr && index < type->value_count(); ++index)
    {
        text << (index == 0 ? "" : " ") << type->value(index)->number() << " " << type->value(index)->name();
    }
    return text.str();
}

void CollectUnmarked(const Descriptor& type, std::set<std::string>& unmarked)
{
    // Read by number, as another reader of the schema would.
    const std::string options = type.options().SerializeAsString();
    if (options.find("\x88\xb5\x18\x01") == std::string::npos)
    {
        unmarked.insert(type.full_name());
    }
    EXPECT_EQ(type.options().GetExtension(ProtoToMarkup::markup), !unmarked.contains(type.full_name()));
    for (int index = 0; index < type.nested_type_count(); ++index)
    {
        CollectUnmarked(*type.nested_type(index), unmarked);
    }
}

} // namespace

TEST(Schemas, FieldsKeepTheirNumbersAndNames)
{
    EXPECT_EQ(FieldsOf("Sonarix.ProductInfo"),
              "1 macaddress, 2 ipaddress, 3 guid, 4 location, 5 devicetype, 6 presentationurl, 7 friendlyname, "
              "8 manufacturer, 9 manufacturerurl, 10 modeldescription, 11 modelname, 12 modelnumber, 13 modelurl, "
              "14 serialnumber, 15 udn, 16 upc, 17 ecosystem, 18 producttype, 19 productcolor, 20 softwareversion, "
              "21 multiroom, 22* icons, 23* services, 24 clockinfo, 25 capabilities, 26 configurations, 27 inroom, "
              "28* children, 29 country");
    EXPECT_EQ(FieldsOf("Sonarix.Product"), "1* protocols, 2 serviceid, 3 state, 4 productinfo");
    EXPECT_EQ(FieldsOf("SXCommon.Capabilities"),
              "1 hasBattery, 2 numChannels, 3 isWired, 4 acousticPackage, 5 associationType, "
              "6 bondedGroupSupportStatus, 7* groups, 8 activationMethod, 9 updateMethod, 10* supportedWifiBands");
    EXPECT_EQ(FieldsOf("SXCommon.Capabilities.Group"), "1 bondedGroupType, 2 productMode, 3* roles, "
                                                       "4* rolesPerAcousticPackage, 5* validSpeakerConfigurations");
    EXPECT_EQ(FieldsOf("SonarixPb.DeviceInfo"),
              "1 macaddress, 2 ipaddress, 3 guid, 4 location, 5 devicetype, 6 presentationurl, 7 friendlyname, "
              "8 manufacturer, 9 manufacturerurl, 10 modeldescription, 11 modelname, 12 modelnumber, 13 modelurl, "
              "14 serialnumber, 15 udn, 16 upc, 17 ecosystem, 18 producttype, 19 productcolor, 20 softwareversion, "
              "21 multiroom_versions, 22 iconlist, 23 servicelist, 24 mdnsClockInfo, 25 country");
    EXPECT_EQ(FieldsOf("SonarixPb.DeviceDiscovery"), "1! state, 2! device");
    EXPECT_EQ(FieldsOf("SonarixPb.ServiceInfo"), "1 serviceType, 2 serviceId, 3 SCPDURL, 4 controlURL, 5 eventSubURL");
    EXPECT_EQ(FieldsOf("HUBAPI.AdvertisementInfo"),
              "1 deviceName, 2 guid, 3 ecosys, 4 productType, 5 productName, 6 productColor, 7 softwareVersion, "
              "8 productLanguage, 9 serialNumber, 10 country");
    EXPECT_EQ(FieldsOf("NetManager.Protobuf.NetworkStatus"),
              "1 isPrimaryUp, 2 primary, 3* interfaces, 4 primaryIpAddress");
    EXPECT_EQ(FieldsOf("NetManager.Protobuf.NetworkInterface"), "1 macAddress, 2 state, 3 type, 4 name, 5 ipInfo");
}

TEST(Schemas, EnumeratorsKeepTheirValues)
{
    EXPECT_EQ(ValuesOf("SXCommon.ProductMode"), "0 SETUP 1 HOST 2 ACCESSORY 3 UNKNOWN_MODE");
    EXPECT_EQ(ValuesOf("SXCommon.ProductState"), "0 INVALID 1 OFFLINE 2 ONLINE");
    EXPECT_EQ(ValuesOf("SonarixPb.DeviceState"), ValuesOf("SXCommon.ProductState"));
    EXPECT_EQ(ValuesOf("SXCommon.DiscoveryProtocol"), "0 SSDP 1 MDNS");
    EXPECT_EQ(ValuesOf("SXCommon.Role"), "0 NO_ROLE 1 STANDALONE 2 SOUNDBAR 3 SUBWOOFER 4 STEREO_LEFT 5 STEREO_RIGHT "
                                         "6 FRONT_LEFT 7 FRONT_RIGHT 8 REAR_LEFT 9 REAR_RIGHT");
    EXPECT_EQ(ValuesOf("NetManager.Protobuf.NetworkType"), "1 WIRED_ETH 2 WIRELESS 3 WIRELESS_AP 4 WIRED_USB");
    EXPECT_EQ(ValuesOf("NetManager.Protobuf.NetworkInterface.State"), "1 DOWN 2 UP");
    EXPECT_EQ(ValuesOf("NetManager.Protobuf.WiFiRadioBand"),
              "0 WIFI_RADIO_BAND_NONE 1 WIFI_RADIO_BAND_2_4GHZ 2 WIFI_RADIO_BAND_5GHZ 3 WIFI_RADIO_BAND_6GHZ "
              "4 WIFI_RADIO_BAND_AUTO");
}

TEST(Schemas, AllMessagesButTheSmallSharedOnesAreMarked)
{
    std::set<std::string> unmarked;
    for (const FileDescriptor* file :
         {SXCommon::Capabilities::descriptor()->file(), Sonarix::Product::descriptor()->file(),
          SonarixPb::DeviceInfo::descriptor()->file(), HUBAPI::AdvertisementInfo::descriptor()->file(),
          NetManager::Protobuf::NetworkStatus::descriptor()->file()})
    {
        for (int index = 0; index < file->message_type_count(); ++index)
        {
            CollectUnmarked(*file->message_type(index), unmarked);
        }
    }
    EXPECT_EQ(unmarked, (std::set<std::string>{"SXCommon.ProtocolVersion", "SXCommon.MultiroomVersions",
                                               "SXCommon.InroomVersions", "SXCommon.ServiceId", "SXCommon.Service",
                                               "SXCommon.Icon", "SXCommon.ClockInfo", "SXCommon.SonarixError",
                                               "SXCommon.SonarixVoid", "SonarixPb.DiscoveryServiceVoid"}));
}

TEST(Schemas, BothEncodingsGiveBackWhatWentIn)
{
    Sonarix::ProductInfo info;
    info.set_guid("G");
    info.mutable_multiroom()->mutable_clocksync_protocol_version()->set_major_version(2);
    info.mutable_capabilities()->set_hasbattery(false);
    info.mutable_capabilities()->add_groups()->add_roles(SXCommon::REAR_LEFT);
    info.add_children()->set_country("DE");
    info.add_children();

    const std::string binary("\x1a\x01G\xaa\x01\x04\x1a\x02\x08\x02\xca\x01\x06\x08\x00\x3a\x02\x18\x08"
                             "\xe2\x01\x05\xea\x01\x02"
                             "DE\xe2\x01\x00",
                             30);
    EXPECT_EQ(info.SerializeAsString(), binary);
    const std::string json = ProtoToMarkup::ToJson(info, true, false, false);
    EXPECT_EQ(json, R"({"guid":"G","multiroom":{"ClockSync_Protocol_Version":{"major_version":2}},)"
                    R"("capabilities":{"hasBattery":false,"groups":[{"roles":["REAR_LEFT"]}]},)"
                    R"("children":[{"country":"DE"},{}]})");
    Sonarix::ProductInfo again;
    ProtoToMarkup::FromJson(json, &again, "ProductInfo");
    EXPECT_EQ(again.SerializeAsString(), binary);

    Sonarix::ProductInfo empty;
    ProtoToMarkup::FromJson("{}", &empty, "ProductInfo");
    EXPECT_EQ(empty.guid(), "");
    EXPECT_FALSE(empty.has_guid());
}

TEST(Schemas, ReadersGetTheDefaultsAndRequiredFieldsAreRequired)
{
    const SXCommon::Capabilities capabilities;
    EXPECT_EQ(capabilities.associationtype(), SXCommon::VERIFIED);
    EXPECT_EQ(capabilities.bondedgroupsupportstatus(), SXCommon::UNSUPPORTED);
    EXPECT_EQ(capabilities.activationmethod(), SXCommon::SELF_ACTIVATION);
    EXPECT_EQ(capabilities.updatemethod(), SXCommon::SELF_UPDATE);
    EXPECT_EQ(SonarixPb::DiscoveryType().protocol(), SonarixPb::MDNS);
    EXPECT_EQ(NetManager::Protobuf::NetworkStatus().primary(), NetManager::Protobuf::WIRED_ETH);

    SonarixPb::DeviceDiscovery discovery;
    discovery.set_state(SonarixPb::ONLINE);
    SonarixPb::DeviceDiscovery received;
    EXPECT_FALSE(received.ParseFromString(discovery.SerializePartialAsString()));
    EXPECT_THROW(ProtoToMarkup::FromJson(R"({"state":"ONLINE"})", &received), ProtoToMarkup::MarkupError);
    discovery.mutable_device();
    EXPECT_TRUE(received.ParseFromString(discovery.SerializeAsString()));
}
