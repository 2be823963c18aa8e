#include "tools/simulated/Identity.h"

#include "Mdns/TxtKeys.h"
#include "schemas/Sonarix.pb.h"
#include "schemas/SonarixPb.pb.h"
#include <ProtoToMarkup.h>

#include <array>
#include <cstdio>
#include <utility>

using namespace Family;

namespace
{

std::string Formatted(const char* format, unsigned number)
{
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), format, number);
    return text.data();
}

void SetVersion(SXCommon::ProtocolVersion* version, int major, int minor)
{
    version->set_major_version(major);
    version->set_minor_version(minor);
}

} // namespace

Identity MakeIdentity(unsigned index, std::string guid, std::string name, std::uint32_t ipv4)
{
    Identity identity;
    identity.index = index;
    identity.guid = std::move(guid);
    identity.name = std::move(name);
    identity.ipv4 = ipv4;
    identity.address = std::to_string(ipv4 >> 24U) + "." + std::to_string(ipv4 >> 16U & 255U) + "." +
                       std::to_string(ipv4 >> 8U & 255U) + "." + std::to_string(ipv4 & 255U);
    return identity;
}

std::string MacAddress(const Identity& identity)
{
    return Formatted("0200%08X", identity.index);
}

std::string SerialNumber(const Identity& identity)
{
    return Formatted("C%07u", identity.index);
}

std::string InfoRecord(const Identity& identity)
{
    Sonarix::ProductInfo info;
    info.set_macaddress(MacAddress(identity));
    info.set_ipaddress(identity.address);
    info.set_guid(identity.guid);
    info.set_devicetype("RENDERER");
    info.set_friendlyname(identity.name);
    info.set_manufacturer(kManufacturer);
    info.set_modelname(kModel);
    info.set_serialnumber(SerialNumber(identity));
    info.set_ecosystem(kEcosystem);
    info.set_producttype(kProductType);
    info.set_productcolor(kColor);
    info.set_softwareversion(kSoftware);
    SXCommon::MultiroomVersions& versions = *info.mutable_multiroom();
    SetVersion(versions.mutable_audio_payload_version(), 2, 1);
    SetVersion(versions.mutable_audiocontrol_protocol_version(), 3, 0);
    SetVersion(versions.mutable_clocksync_protocol_version(), 1, 4);
    SetVersion(versions.mutable_nowplaying_version(), 4, 0);
    SetVersion(versions.mutable_playbackrequest_version(), 2, 2);
    SetVersion(versions.mutable_grouping_version(), 1, 1);
    info.mutable_clockinfo();
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
    capabilities.add_supportedwifibands("WIFI_RADIO_BAND_2_4GHZ");
    capabilities.add_supportedwifibands("WIFI_RADIO_BAND_5GHZ");
    info.mutable_configurations()->set_currentproductmode(SXCommon::HOST);
    info.set_country("CH");
    return ProtoToMarkup::ToJson(info, true, false, false);
}

std::string TxtStrings(const Identity& identity)
{
    SonarixPb::DeviceInfo info; // without versions: a real product announces itself before it knows them
    info.set_guid(identity.guid);
    info.set_manufacturer(kManufacturer);
    info.set_ecosystem(kEcosystem);
    info.set_producttype(kProductType);
    info.set_modelname(kModel);
    info.set_productcolor(kColor);
    info.set_softwareversion(kSoftware);
    std::string strings;
    for (const auto& [key, value] : SonarixService::TxtFromDeviceInfo(info))
    {
        const std::string text = key + "=" + value;
        strings += static_cast<char>(text.size());
        strings += text;
    }
    return strings;
}
