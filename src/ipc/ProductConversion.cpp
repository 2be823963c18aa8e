#include "ipc/ProductConversion.h"

#include "schemas/SXCommon.pb.h"
#include "schemas/Sonarix.pb.h"

namespace SonarixService
{

namespace
{

using Sonarix::ProductInfo;
using SonarixPb::DeviceInfo;

/// Copies a field that has the same accessor names in the messages `from` and `to`, if it is set.
#define COPY_IF_SET(FIELD)                                                                                             \
    do                                                                                                                 \
    {                                                                                                                  \
        if (from.has_##FIELD())                                                                                        \
        {                                                                                                              \
            to.set_##FIELD(from.FIELD());                                                                              \
        }                                                                                                              \
    } while (false)

struct TextMember
{
    const std::string& (ProductInfo::*get)() const;
    std::string* (DeviceInfo::*mutableText)();
};

constexpr TextMember kTexts[] = {
    {&ProductInfo::macaddress, &DeviceInfo::mutable_macaddress},
    {&ProductInfo::ipaddress, &DeviceInfo::mutable_ipaddress},
    {&ProductInfo::guid, &DeviceInfo::mutable_guid},
    {&ProductInfo::location, &DeviceInfo::mutable_location},
    {&ProductInfo::devicetype, &DeviceInfo::mutable_devicetype},
    {&ProductInfo::presentationurl, &DeviceInfo::mutable_presentationurl},
    {&ProductInfo::friendlyname, &DeviceInfo::mutable_friendlyname},
    {&ProductInfo::manufacturer, &DeviceInfo::mutable_manufacturer},
    {&ProductInfo::modeldescription, &DeviceInfo::mutable_modeldescription},
    {&ProductInfo::modelname, &DeviceInfo::mutable_modelname},
    {&ProductInfo::modelnumber, &DeviceInfo::mutable_modelnumber},
    {&ProductInfo::modelurl, &DeviceInfo::mutable_modelurl},
    {&ProductInfo::serialnumber, &DeviceInfo::mutable_serialnumber},
    {&ProductInfo::udn, &DeviceInfo::mutable_udn},
    {&ProductInfo::ecosystem, &DeviceInfo::mutable_ecosystem},
    {&ProductInfo::producttype, &DeviceInfo::mutable_producttype},
    {&ProductInfo::productcolor, &DeviceInfo::mutable_productcolor},
    {&ProductInfo::softwareversion, &DeviceInfo::mutable_softwareversion},
};

SonarixPb::ProtocolVersion VersionFromProductVersion(const SXCommon::ProtocolVersion& from)
{
    SonarixPb::ProtocolVersion to;
    to.set_major_version(from.major_version());
    to.set_minor_version(from.minor_version());
    return to;
}

SonarixPb::MultiroomVersions VersionsFromMultiroom(const SXCommon::MultiroomVersions& from)
{
    SonarixPb::MultiroomVersions to;
    *to.mutable_audio_payload_version() = VersionFromProductVersion(from.audio_payload_version());
    *to.mutable_audiocontrol_protocol_version() = VersionFromProductVersion(from.audiocontrol_protocol_version());
    *to.mutable_clocksync_protocol_version() = VersionFromProductVersion(from.clocksync_protocol_version());
    *to.mutable_nowplaying_version() = VersionFromProductVersion(from.nowplaying_version());
    *to.mutable_playbackrequest_version() = VersionFromProductVersion(from.playbackrequest_version());
    *to.mutable_grouping_version() = VersionFromProductVersion(from.grouping_version());
    return to;
}

SonarixPb::IconInfo IconInfoFromIcon(const SXCommon::Icon& from)
{
    SonarixPb::IconInfo to;
    COPY_IF_SET(mimetype);
    COPY_IF_SET(height);
    COPY_IF_SET(width);
    COPY_IF_SET(depth);
    COPY_IF_SET(url);
    return to;
}

SonarixPb::ServiceInfo ServiceInfoFromService(const SXCommon::Service& from)
{
    SonarixPb::ServiceInfo to;
    COPY_IF_SET(servicetype);
    COPY_IF_SET(serviceid);
    COPY_IF_SET(scpdurl);
    COPY_IF_SET(controlurl);
    COPY_IF_SET(eventsuburl);
    return to;
}

SonarixPb::ClockInfo DeviceClockFromProductClock(const SXCommon::ClockInfo& from)
{
    SonarixPb::ClockInfo to;
    if (from.has_connection())
    {
        to.set_connection(from.connection() == SXCommon::ETHERNET ? SonarixPb::ETHERNET
                          : from.connection() == SXCommon::WIFI   ? SonarixPb::WIFI
                                                                  : SonarixPb::UNKNOWN);
    }
    COPY_IF_SET(clockdomain);
    COPY_IF_SET(leaderelected);
    COPY_IF_SET(hasbattery);
    COPY_IF_SET(isclocksynced);
    return to;
}

#undef COPY_IF_SET

} // namespace

SonarixPb::DeviceInfo ProductToDeviceInfo(const Sonarix::Product& product)
{
    const ProductInfo& info = product.productinfo();
    DeviceInfo device;
    for (const TextMember& text : kTexts)
    {
        const std::string& value = (info.*text.get)();
        if (!value.empty())
        {
            *(device.*text.mutableText)() = value;
        }
    }
    if (info.has_multiroom())
    {
        *device.mutable_multiroom_versions() = VersionsFromMultiroom(info.multiroom());
    }
    for (const SXCommon::Icon& icon : info.icons())
    {
        *device.mutable_iconlist()->add_icon() = IconInfoFromIcon(icon);
    }
    for (const SXCommon::Service& service : info.services())
    {
        *device.mutable_servicelist()->add_service() = ServiceInfoFromService(service);
    }
    if (info.has_clockinfo())
    {
        *device.mutable_mdnsclockinfo() = DeviceClockFromProductClock(info.clockinfo());
    }
    return device;
}

SonarixPb::DeviceState ProductStateToDeviceState(const Sonarix::Product& product)
{
    switch (product.state())
    {
    case SXCommon::OFFLINE:
        return SonarixPb::OFFLINE;
    case SXCommon::ONLINE:
        return SonarixPb::ONLINE;
    default:
        return SonarixPb::INVALID;
    }
}

} // namespace SonarixService
