#include "ProductConversion.h"
#include "SXCommon.pb.h"
#include "Sonarix.pb.h"

#include <google/protobuf/message.h>
#include <gtest/gtest.h>

#include <string>

using namespace SonarixService;

namespace
{

/// Sets every field, one element of each list, to something that no other field has.
void Fill(google::protobuf::Message& message, int& next)
{
    const google::protobuf::Reflection& fields = *message.GetReflection();
    for (int index = 0; index < message.GetDescriptor()->field_count(); ++index)
    {
        const google::protobuf::FieldDescriptor* const field = message.GetDescriptor()->field(index);
        ++next;
        switch (field->cpp_type())
        {
        case google::protobuf::FieldDescriptor::CPPTYPE_STRING:
            if (!field->is_repeated())
            {
                fields.SetString(&message, field, field->name() + std::to_string(next));
            }
            break;
        case google::protobuf::FieldDescriptor::CPPTYPE_INT32:
            fields.SetInt32(&message, field, next);
            break;
        case google::protobuf::FieldDescriptor::CPPTYPE_BOOL:
            fields.SetBool(&message, field, true);
            break;
        case google::protobuf::FieldDescriptor::CPPTYPE_MESSAGE:
            if (field->message_type() != message.GetDescriptor()) // products have no children here
            {
                Fill(field->is_repeated() ? *fields.AddMessage(&message, field)
                                          : *fields.MutableMessage(&message, field),
                     next);
            }
            break;
        default:
            break;
        }
    }
}

/// All fields with their values; names in lower case, in which the two records agree.
std::string Values(const google::protobuf::Message& message)
{
    std::string text = message.ShortDebugString();
    for (char& letter : text)
    {
        letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    }
    return text;
}

} // namespace

/// What differs between the two records is named here; all else comes over under its own name.
TEST(ProductConversionTest, EverythingComesOverButWhatIsMeantToStay)
{
    Sonarix::Product product;
    Sonarix::ProductInfo& info = *product.mutable_productinfo();
    int next = 0;
    Fill(*info.mutable_multiroom(), next);
    Fill(*info.add_icons(), next);
    Fill(*info.add_services(), next);
    info.add_icons()->set_url("second");
    Fill(*info.mutable_clockinfo(), next);
    info.mutable_clockinfo()->set_connection(SXCommon::WIFI);
    Fill(info, next);

    const SonarixPb::DeviceInfo device = ProductToDeviceInfo(product);
    EXPECT_EQ(Values(device.iconlist().icon(0)), Values(info.icons(0)));
    EXPECT_EQ(device.iconlist().icon(1).url(), "second");
    EXPECT_FALSE(device.iconlist().icon(1).has_height());
    EXPECT_EQ(Values(device.servicelist().service(0)), Values(info.services(0)));
    EXPECT_EQ(Values(device.mdnsclockinfo()), Values(info.clockinfo()));
    info.mutable_multiroom()->clear_zonecontrol_version();
    EXPECT_EQ(Values(device.multiroom_versions()), Values(info.multiroom()));

    SonarixPb::DeviceInfo texts = device;
    for (const char* const nested : {"multiroom_versions", "iconlist", "servicelist", "mdnsClockInfo"})
    {
        texts.GetReflection()->ClearField(&texts, texts.GetDescriptor()->FindFieldByName(nested));
    }
    Sonarix::ProductInfo expected;
    for (int index = 0; index < info.GetDescriptor()->field_count(); ++index)
    {
        const google::protobuf::FieldDescriptor* const field = info.GetDescriptor()->field(index);
        const std::string& name = field->name();
        if (field->cpp_type() == google::protobuf::FieldDescriptor::CPPTYPE_STRING && name != "manufacturerurl" &&
            name != "upc" && name != "country")
        {
            expected.GetReflection()->SetString(&expected, field, info.GetReflection()->GetString(info, field));
        }
    }
    EXPECT_EQ(Values(texts), Values(expected));
}

TEST(ProductConversionTest, WhatIsUnsetOrEmptyStaysUnset)
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
