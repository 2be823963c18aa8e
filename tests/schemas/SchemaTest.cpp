// The schemas' field numbers, names and markup option, which peers depend on.
#include "schemas/NetManager.pb.h"
#include "schemas/SXCommon.pb.h"
#include "schemas/Sonarix.pb.h"
#include "schemas/SonarixPb.pb.h"
#include <ProtoToMarkup.h>

#include <google/protobuf/descriptor.h>
#include <gtest/gtest.h>

#include <sstream>

using google::protobuf::Descriptor;
using google::protobuf::EnumDescriptor;
using google::protobuf::FieldDescriptor;

namespace
{

/// "1 guid, 2 name". Repeated fields have "*" after the number, required ones "!".
template <class Message>
std::string FieldsOf()
{
    const Descriptor* const type = Message::descriptor();
    std::ostringstream text;
    for (int index = 0; index < type->field_count(); ++index)
    {
        const FieldDescriptor& field = *type->field(index);
        text << (index == 0 ? "" : ", ") << field.number() << (field.is_repeated() ? "* " : "")
             << (field.is_required() ? "! " : "") << (field.is_optional() ? " " : "") << field.name();
    }
    return text.str();
}

std::string ValuesOf(const EnumDescriptor* type)
{
    std::ostringstream text;
    for (int index = 0; index < type->value_count(); ++index)
    {
        text << (index == 0 ? "" : " ") << type->value(index)->number() << " " << type->value(index)->name();
    }
    return text.str();
}

} // namespace

TEST(Schemas, FieldsKeepTheirNumbersAndNames)
{
    EXPECT_EQ(FieldsOf<Sonarix::ProductInfo>(),
              "1 macaddress, 2 ipaddress, 3 guid, 4 location, 5 devicetype, 6 presentationurl, 7 friendlyname, "
              "8 manufacturer, 9 manufacturerurl, 10 modeldescription, 11 modelname, 12 modelnumber, 13 modelurl, "
              "14 serialnumber, 15 udn, 16 upc, 17 ecosystem, 18 producttype, 19 productcolor, 20 softwareversion, "
              "21 multiroom, 22* icons, 23* services, 24 clockinfo, 25 capabilities, 26 configurations, 27 inroom, "
              "28* children, 29 country");
    EXPECT_EQ(FieldsOf<Sonarix::Product>(), "1* protocols, 2 serviceid, 3 state, 4 productinfo");
    EXPECT_EQ(FieldsOf<SXCommon::Capabilities>(),
              "1 hasBattery, 2 numChannels, 3 isWired, 4 acousticPackage, 5 associationType, "
              "6 bondedGroupSupportStatus, 7* groups, 8 activationMethod, 9 updateMethod, 10* supportedWifiBands");
    EXPECT_EQ(FieldsOf<SXCommon::Capabilities_Group>(), "1 bondedGroupType, 2 productMode, 3* roles, "
                                                        "4* rolesPerAcousticPackage, 5* validSpeakerConfigurations");
    EXPECT_EQ(FieldsOf<NetManager::Protobuf::NetworkStatus>(),
              "1 isPrimaryUp, 2 primary, 3* interfaces, 4 primaryIpAddress");
    EXPECT_EQ(FieldsOf<NetManager::Protobuf::NetworkInterface>(), "1 macAddress, 2 state, 3 type, 4 name, 5 ipInfo");

    EXPECT_EQ(ValuesOf(SXCommon::ProductMode_descriptor()), "0 SETUP 1 HOST 2 ACCESSORY 3 UNKNOWN_MODE");
    EXPECT_EQ(ValuesOf(SXCommon::ProductState_descriptor()), "0 INVALID 1 OFFLINE 2 ONLINE");
    EXPECT_EQ(ValuesOf(SonarixPb::DeviceState_descriptor()), "0 INVALID 1 OFFLINE 2 ONLINE");
    EXPECT_EQ(ValuesOf(NetManager::Protobuf::NetworkType_descriptor()),
              "1 WIRED_ETH 2 WIRELESS 3 WIRELESS_AP 4 WIRED_USB");

    // The markup option, 50001 = true, as bytes.
    EXPECT_EQ(Sonarix::Product::descriptor()->options().SerializeAsString(), "\x88\xb5\x18\x01");
    EXPECT_EQ(SXCommon::Icon::descriptor()->options().SerializeAsString(), "");
}

TEST(Schemas, BinaryAndJsonRoundTripsKeepAllFields)
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

    SonarixPb::DeviceDiscovery discovery;
    EXPECT_THROW(ProtoToMarkup::FromJson(R"({"state":"ONLINE"})", &discovery), ProtoToMarkup::MarkupError);
}
