#include "ipc/ProductConversion.h"

#include "schemas/SXCommon.pb.h"
#include "schemas/Sonarix.pb.h"

namespace SonarixService
{

namespace
{

/// FIELD is set where the source has it, with something in it.
#define COPY_TEXT(from, to, FIELD)                                                                                     \
    do                                                                                                                 \
    {                                                                                                                  \
        if (!(from).FIELD().empty())                                                                                   \
        {                                                                                                              \
            (to).set_##FIELD((from).FIELD());                                                                          \
        }                                                                                                              \
    } while (false)

#define COPY_IF_SET(from, FROM, to, TO)                                                                                \
    do                                                                                                                 \
    {                                                                                                                  \
        if ((from).has_##FROM())                                                                                       \
        {                                                                                                              \
            (to).set_##TO((from).FROM());                                                                              \
        }                                                                                                              \
    } while (false)

void CopyTexts(const Sonarix::ProductInfo& from, SonarixPb::DeviceInfo& to)
{
    COPY_TEXT(from, to, macaddress);
    COPY_TEXT(from, to, ipaddress);
    COPY_TEXT(from, to, guid);
    COPY_TEXT(from, to, location);
    COPY_TEXT(from, to, devicetype);
    COPY_TEXT(from, to, presentationurl);
    COPY_TEXT(from, to, friendlyname);
    COPY_TEXT(from, to, manufacturer);
    COPY_TEXT(from, to, modeldescription);
    COPY_TEXT(from, to, modelname);
    COPY_TEXT(from, to, modelnumber);
    COPY_TEXT(from, to, modelurl);
    COPY_TEXT(from, to, serialnumber);
    COPY_TEXT(from, to, udn);
    COPY_TEXT(from, to, ecosystem);
    COPY_TEXT(from, to, producttype);
    COPY_TEXT(from, to, productcolor);
    COPY_TEXT(from, to, softwareversion);
}

void CopyVersion(const SXCommon::ProtocolVersion& from, SonarixPb::ProtocolVersion& to)
{
    to.set_major_version(from.major_version());
    to.set_minor_version(from.minor_version());
}

void CopyVersions(const SXCommon::MultiroomVersions& from, SonarixPb::MultiroomVersions& to)
{
    CopyVersion(from.audio_payload_version(), *to.mutable_audio_payload_version());
    CopyVersion(from.audiocontrol_protocol_version(), *to.mutable_audiocontrol_protocol_version());
    CopyVersion(from.clocksync_protocol_version(), *to.mutable_clocksync_protocol_version());
    CopyVersion(from.nowplaying_version(), *to.mutable_nowplaying_version());
    CopyVersion(from.playbackrequest_version(), *to.mutable_playbackrequest_version());
    CopyVersion(from.grouping_version(), *to.mutable_grouping_version());
}

void CopyIcon(const SXCommon::Icon& from, SonarixPb::IconInfo& to)
{
    COPY_IF_SET(from, mimetype, to, mimetype);
    COPY_IF_SET(from, height, to, height);
    COPY_IF_SET(from, width, to, width);
    COPY_IF_SET(from, depth, to, depth);
    COPY_IF_SET(from, url, to, url);
}

void CopyService(const SXCommon::Service& from, SonarixPb::ServiceInfo& to)
{
    COPY_IF_SET(from, servicetype, to, servicetype);
    COPY_IF_SET(from, serviceid, to, serviceid);
    COPY_IF_SET(from, scpdurl, to, scpdurl);
    COPY_IF_SET(from, controlurl, to, controlurl);
    COPY_IF_SET(from, eventsuburl, to, eventsuburl);
}

SonarixPb::ConnectionType ToConnectionType(SXCommon::ConnectionType type)
{
    switch (type)
    {
    case SXCommon::ETHERNET:
        return SonarixPb::ETHERNET;
    case SXCommon::WIFI:
        return SonarixPb::WIFI;
    default:
        return SonarixPb::UNKNOWN;
    }
}

void CopyClockInfo(const SXCommon::ClockInfo& from, SonarixPb::ClockInfo& to)
{
    if (from.has_connection())
    {
        to.set_connection(ToConnectionType(from.connection()));
    }
    COPY_IF_SET(from, clockdomain, to, clockdomain);
    COPY_IF_SET(from, leaderelected, to, leaderelected);
    COPY_IF_SET(from, hasbattery, to, hasbattery);
    COPY_IF_SET(from, isclocksynced, to, isclocksynced);
}

#undef COPY_TEXT
#undef COPY_IF_SET

} // namespace

SonarixPb::DeviceInfo ProductToDeviceInfo(const Sonarix::Product& product)
{
    const Sonarix::ProductInfo& info = product.productinfo();
    SonarixPb::DeviceInfo device;
    CopyTexts(info, device);
    if (info.has_multiroom())
    {
        CopyVersions(info.multiroom(), *device.mutable_multiroom_versions());
    }
    for (const SXCommon::Icon& icon : info.icons())
    {
        CopyIcon(icon, *device.mutable_iconlist()->add_icon());
    }
    for (const SXCommon::Service& service : info.services())
    {
        CopyService(service, *device.mutable_servicelist()->add_service());
    }
    if (info.has_clockinfo())
    {
        CopyClockInfo(info.clockinfo(), *device.mutable_mdnsclockinfo());
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
