#include "bench/publish/SampleProducts.h"

#include "aggregator/ProductMerge.h"

#include <cstdio>
#include <string>

namespace
{

template <class... Numbers>
std::string Text(const char* format, Numbers... numbers)
{
    char text[64];
    std::snprintf(text, sizeof text, format, numbers...);
    return text;
}

void SetVersion(SXCommon::ProtocolVersion* version, int major, int minor)
{
    version->set_major_version(major);
    version->set_minor_version(minor);
}

void SetVersions(SXCommon::MultiroomVersions& versions)
{
    SetVersion(versions.mutable_audio_payload_version(), 2, 1);
    SetVersion(versions.mutable_audiocontrol_protocol_version(), 3, 0);
    SetVersion(versions.mutable_clocksync_protocol_version(), 1, 4);
    SetVersion(versions.mutable_nowplaying_version(), 4, 0);
    SetVersion(versions.mutable_playbackrequest_version(), 2, 2);
    SetVersion(versions.mutable_grouping_version(), 1, 1);
}

/// Sets the fields that both discovery and the product itself report.
void SetCommon(Sonarix::ProductInfo& info, int number)
{
    info.set_guid(Text("3c1f5d0a-77e2-4b6e-9a40-%012d", number));
    info.set_macaddress(Text("00:1E:C0:%02X:%02X:%02X", number / 65536 % 256, number / 256 % 256, number % 256));
    info.set_ipaddress(Text("192.168.%d.%d", 10 + number / 250, 1 + number % 250));
    info.set_friendlyname(Text("Living Room %d", number));
    info.set_manufacturer("Kova");
    info.set_ecosystem("ORB2");
    info.set_producttype("Soundbar 700");
    info.set_modelname("Kova Soundbar");
    info.set_productcolor("BLACK");
    info.set_softwareversion("2.14.3-4711+c0ffee1");
    SetVersions(*info.mutable_multiroom());
}

} // namespace

Sonarix::Product SampleProducts::Discovered(int number)
{
    Sonarix::Product product;
    product.add_protocols(SXCommon::MDNS);
    product.set_state(SXCommon::ONLINE);
    SXCommon::ServiceId& service = *product.mutable_serviceid();
    service.set_interface(2);
    service.set_protocol(SXCommon::INET);
    service.set_name(Text("Living Room %d", number));
    service.set_type("_kova-lanyard._tcp");
    service.set_domain("local");
    Sonarix::ProductInfo& info = *product.mutable_productinfo();
    SetCommon(info, number);
    SXCommon::ClockInfo& clock = *info.mutable_clockinfo();
    clock.set_connection(SXCommon::WIFI);
    clock.set_clockdomain("0");
    clock.set_leaderelected(false);
    clock.set_hasbattery(false);
    clock.set_isclocksynced(true);
    return product;
}

Sonarix::ProductInfo SampleProducts::Described(int number)
{
    Sonarix::ProductInfo info;
    SetCommon(info, number);
    info.set_devicetype("RENDERER");
    info.set_serialnumber(Text("KV07%08d", number));
    info.set_country("DE");
    SXCommon::Capabilities& capabilities = *info.mutable_capabilities();
    capabilities.set_hasbattery(false);
    capabilities.set_numchannels(2);
    capabilities.set_iswired(true);
    capabilities.set_acousticpackage("STEREO_2_0");
    capabilities.set_associationtype(SXCommon::VERIFIED);
    capabilities.set_bondedgroupsupportstatus(SXCommon::SUPPORTED);
    SXCommon::Capabilities::Group& group = *capabilities.add_groups();
    group.set_bondedgrouptype(SXCommon::STEREO);
    group.set_productmode(SXCommon::HOST);
    group.add_roles(SXCommon::STEREO_LEFT);
    group.add_roles(SXCommon::STEREO_RIGHT);
    capabilities.set_activationmethod(SXCommon::SELF_ACTIVATION);
    capabilities.set_updatemethod(SXCommon::SELF_UPDATE);
    capabilities.add_supportedwifibands("BAND_2_4_GHZ");
    capabilities.add_supportedwifibands("BAND_5_GHZ");
    info.mutable_configurations()->set_currentproductmode(SXCommon::HOST);
    return info;
}

Sonarix::Product SampleProducts::Row(int number)
{
    Sonarix::Product product = Discovered(number);
    *product.mutable_productinfo() = SonarixService::MergeProductInfo(product.productinfo(), Described(number));
    return product;
}

Sonarix::ProductList SampleProducts::List(int rows)
{
    Sonarix::ProductList list;
    for (int number = 0; number < rows; ++number)
    {
        *list.add_products() = Row(number);
    }
    return list;
}
