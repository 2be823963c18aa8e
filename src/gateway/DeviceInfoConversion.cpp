#include "gateway/DeviceInfoConversion.h"

#include "gateway/MacAddressInfo.h"
#include "schemas/HubApi.pb.h"
#include "schemas/SXCommon.pb.h"
#include "schemas/Sonarix.pb.h"
#include "schemas/SonarixPb.pb.h"

#include <string>

namespace SonarixService
{

namespace
{

using HUBAPI::AdvertisementInfo;
using Sonarix::ProductInfo;
using SonarixPb::DeviceInfo;

template <class From, class To>
struct Member
{
    const std::string& (From::*get)() const;
    std::string* (To::*set)();
};

constexpr Member<AdvertisementInfo, DeviceInfo> kAdvertised[] = {
    {&AdvertisementInfo::guid, &DeviceInfo::mutable_guid},
    {&AdvertisementInfo::devicename, &DeviceInfo::mutable_friendlyname},
    {&AdvertisementInfo::ecosys, &DeviceInfo::mutable_ecosystem},
    {&AdvertisementInfo::producttype, &DeviceInfo::mutable_producttype},
    {&AdvertisementInfo::productname, &DeviceInfo::mutable_modelname},
    {&AdvertisementInfo::productcolor, &DeviceInfo::mutable_productcolor},
    {&AdvertisementInfo::softwareversion, &DeviceInfo::mutable_softwareversion},
    {&AdvertisementInfo::serialnumber, &DeviceInfo::mutable_serialnumber},
    {&AdvertisementInfo::country, &DeviceInfo::mutable_country},
};

constexpr Member<DeviceInfo, ProductInfo> kDevice[] = {
    {&DeviceInfo::macaddress, &ProductInfo::mutable_macaddress},
    {&DeviceInfo::guid, &ProductInfo::mutable_guid},
    {&DeviceInfo::devicetype, &ProductInfo::mutable_devicetype},
    {&DeviceInfo::friendlyname, &ProductInfo::mutable_friendlyname},
    {&DeviceInfo::manufacturer, &ProductInfo::mutable_manufacturer},
    {&DeviceInfo::ecosystem, &ProductInfo::mutable_ecosystem},
    {&DeviceInfo::producttype, &ProductInfo::mutable_producttype},
    {&DeviceInfo::modelname, &ProductInfo::mutable_modelname},
    {&DeviceInfo::productcolor, &ProductInfo::mutable_productcolor},
    {&DeviceInfo::softwareversion, &ProductInfo::mutable_softwareversion},
    {&DeviceInfo::serialnumber, &ProductInfo::mutable_serialnumber},
    {&DeviceInfo::country, &ProductInfo::mutable_country},
};

using Versions = SXCommon::MultiroomVersions;
using AdvertisedVersions = SonarixPb::MultiroomVersions;

/// The versions that are copied. ZoneControl_Version is not copied, because peers expect its absence.
constexpr struct
{
    const SonarixPb::ProtocolVersion& (AdvertisedVersions::*get)() const;
    SXCommon::ProtocolVersion* (Versions::*set)();
} kVersions[] = {
    {&AdvertisedVersions::audio_payload_version, &Versions::mutable_audio_payload_version},
    {&AdvertisedVersions::clocksync_protocol_version, &Versions::mutable_clocksync_protocol_version},
    {&AdvertisedVersions::playbackrequest_version, &Versions::mutable_playbackrequest_version},
    {&AdvertisedVersions::grouping_version, &Versions::mutable_grouping_version},
    {&AdvertisedVersions::nowplaying_version, &Versions::mutable_nowplaying_version},
    {&AdvertisedVersions::audiocontrol_protocol_version, &Versions::mutable_audiocontrol_protocol_version},
};

template <class From, class To, std::size_t count>
void CopyMembers(const From& from, To& to, const Member<From, To> (&members)[count])
{
    for (const auto& [get, set] : members)
    {
        *(to.*set)() = (from.*get)();
    }
}

} // namespace

DeviceInfo DeviceInfoFromAdvertisement(const AdvertisementInfo& info)
{
    DeviceInfo device;
    device.set_devicetype("RENDERER");
    device.set_macaddress(GetPrimaryMAC());
    device.set_manufacturer("Kova");
    CopyMembers(info, device, kAdvertised);
    return device;
}

ProductInfo ProductInfoFromDeviceInfo(const DeviceInfo& device)
{
    ProductInfo info;
    CopyMembers(device, info, kDevice);
    if (device.has_ipaddress())
    {
        info.set_ipaddress(device.ipaddress());
    }
    for (const auto& [get, set] : kVersions)
    {
        const SonarixPb::ProtocolVersion& from = (device.multiroom_versions().*get)();
        SXCommon::ProtocolVersion* const to = (info.mutable_multiroom()->*set)();
        to->set_major_version(from.major_version());
        to->set_minor_version(from.minor_version());
    }
    return info;
}

} // namespace SonarixService
