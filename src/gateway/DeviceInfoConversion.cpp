#include "gateway/DeviceInfoConversion.h"

#include "schemas/SXCommon.pb.h"
#include "schemas/Sonarix.pb.h"
#include "schemas/SonarixPb.pb.h"

namespace SonarixService
{

namespace
{

void CopyVersion(const SonarixPb::ProtocolVersion& from, SXCommon::ProtocolVersion* to)
{
    to->set_major_version(from.major_version());
    to->set_minor_version(from.minor_version());
}

void CopyMultiroomVersions(const SonarixPb::MultiroomVersions& from, SXCommon::MultiroomVersions* to)
{
    CopyVersion(from.audio_payload_version(), to->mutable_audio_payload_version());
    CopyVersion(from.clocksync_protocol_version(), to->mutable_clocksync_protocol_version());
    CopyVersion(from.playbackrequest_version(), to->mutable_playbackrequest_version());
    CopyVersion(from.grouping_version(), to->mutable_grouping_version());
    CopyVersion(from.nowplaying_version(), to->mutable_nowplaying_version());
    CopyVersion(from.audiocontrol_protocol_version(), to->mutable_audiocontrol_protocol_version());
    // Without ZoneControl_Version: peers expect its absence.
}

} // namespace

Sonarix::ProductInfo ConvertToProductInfo(const SonarixPb::DeviceInfo& device)
{
    Sonarix::ProductInfo info;
    info.set_macaddress(device.macaddress());
    if (device.has_ipaddress())
    {
        info.set_ipaddress(device.ipaddress());
    }
    info.set_guid(device.guid());
    info.set_devicetype(device.devicetype());
    info.set_friendlyname(device.friendlyname());
    info.set_manufacturer(device.manufacturer());
    info.set_ecosystem(device.ecosystem());
    info.set_producttype(device.producttype());
    info.set_modelname(device.modelname());
    info.set_productcolor(device.productcolor());
    info.set_softwareversion(device.softwareversion());
    info.set_serialnumber(device.serialnumber());
    info.set_country(device.country());
    CopyMultiroomVersions(device.multiroom_versions(), info.mutable_multiroom());
    return info;
}

} // namespace SonarixService
