#include "Mdns/TxtKeys.h"

#include "Mdns/avahi/MdnsTypes.h"
#include "base/Utf8.h"
#include "runtime/DPrint.h"
#include "schemas/Sonarix.pb.h"
#include "schemas/SonarixPb.pb.h"
#include <ProtoToMarkup.h>

namespace SonarixService
{

namespace
{

const DPrint s_log("MdnsService");

struct TextKey
{
    const char* key;
    std::string* (Sonarix::ProductInfo::*read)();
    const std::string& (SonarixPb::DeviceInfo::*written)() const; ///< null: read only
};
constexpr TextKey kTextKeys[] = {
    {"GUID", &Sonarix::ProductInfo::mutable_guid, &SonarixPb::DeviceInfo::guid},
    {"MANUFACTURER", &Sonarix::ProductInfo::mutable_manufacturer, &SonarixPb::DeviceInfo::manufacturer},
    {"ECOSYS", &Sonarix::ProductInfo::mutable_ecosystem, &SonarixPb::DeviceInfo::ecosystem},
    {"PTYPE", &Sonarix::ProductInfo::mutable_producttype, &SonarixPb::DeviceInfo::producttype},
    {"PNAME", &Sonarix::ProductInfo::mutable_modelname, &SonarixPb::DeviceInfo::modelname},
    {"PCOLOR", &Sonarix::ProductInfo::mutable_productcolor, &SonarixPb::DeviceInfo::productcolor},
    {"SWVERSION", &Sonarix::ProductInfo::mutable_softwareversion, &SonarixPb::DeviceInfo::softwareversion},
    {"MAC", &Sonarix::ProductInfo::mutable_macaddress, nullptr},
    {"DEVICEIP", &Sonarix::ProductInfo::mutable_ipaddress, nullptr},
};

/// A TXT key whose value is the JSON of a ProtocolVersion.
struct VersionKey
{
    const char* key;
    SXCommon::ProtocolVersion* (SXCommon::MultiroomVersions::*read)();
    const SonarixPb::ProtocolVersion& (SonarixPb::MultiroomVersions::*written)() const;
};
using Read = SXCommon::MultiroomVersions;
using Written = SonarixPb::MultiroomVersions;
constexpr VersionKey kVersionKeys[] = {
    {"AudioPayloadVersion", &Read::mutable_audio_payload_version, &Written::audio_payload_version},
    {"AudioControlProtocolVersion", &Read::mutable_audiocontrol_protocol_version,
     &Written::audiocontrol_protocol_version},
    {"ClockSyncProtocolVersion", &Read::mutable_clocksync_protocol_version, &Written::clocksync_protocol_version},
    {"NowPlayingVersion", &Read::mutable_nowplaying_version, &Written::nowplaying_version},
    {"PlaybackRequestVersion", &Read::mutable_playbackrequest_version, &Written::playbackrequest_version},
    {"GroupingVersion", &Read::mutable_grouping_version, &Written::grouping_version},
};

/// A TXT key that is read but never written, like "CLOCKDOMAIN" and "CONNECTIONTYPE". The value "true" means true.
struct FlagKey
{
    const char* key;
    void (SXCommon::ClockInfo::*read)(bool);
};
constexpr FlagKey kFlagKeys[] = {
    {"LEADERELECTED", &SXCommon::ClockInfo::set_leaderelected},
    {"BATTERY", &SXCommon::ClockInfo::set_hasbattery},
    {"ISCLOCKSYNCED", &SXCommon::ClockInfo::set_isclocksynced},
};

/// Finds the TXT records of one service and collects the keys of unusable ones.
struct TxtReader
{
    /// Calls `set` with the value of the record, if it exists and is UTF-8.
    template <class Setter>
    void Read(const char* key, Setter set)
    {
        const auto record = txt.find(key);
        if (record == txt.end())
        {
            return;
        }
        try
        {
            if (Utf8::IsValid(record->second))
            {
                set(record->second);
                return;
            }
        }
        catch (const ProtoToMarkup::MarkupError&) // not the JSON of a version
        {
        }
        unusable += unusable.empty() ? key : std::string(" ") + key;
    }

    const std::map<std::string, std::string>& txt;
    std::string unusable;
};

SXCommon::ConnectionType ConnectionTypeFromText(const std::string& text)
{
    if (text == "ETHERNET")
    {
        return SXCommon::ETHERNET;
    }
    return text == "WIFI" ? SXCommon::WIFI : SXCommon::UNKNOWN;
}

} // namespace

std::string GetProductInfoFromService(Sonarix::ProductInfo* info, const MDNS::Service& service)
{
    TxtReader reader{service.txt, {}};
    for (const TextKey& text : kTextKeys)
    {
        reader.Read(text.key, [&](const std::string& value) { *(info->*text.read)() = value; });
    }
    for (const VersionKey& version : kVersionKeys)
    {
        reader.Read(version.key,
                    [&](const std::string& value)
                    {
                        SXCommon::ProtocolVersion parsed;
                        ProtoToMarkup::FromJson(value, &parsed);
                        (info->mutable_multiroom()->*version.read)()->MergeFrom(parsed);
                    });
    }
    SXCommon::ClockInfo* const clock = info->mutable_clockinfo(); // present even without clock records
    reader.Read("CLOCKDOMAIN", [&](const std::string& value) { clock->set_clockdomain(value); });
    for (const FlagKey& flag : kFlagKeys)
    {
        reader.Read(flag.key, [&](const std::string& value) { (clock->*flag.read)(value == "true"); });
    }
    reader.Read("CONNECTIONTYPE",
                [&](const std::string& value) { clock->set_connection(ConnectionTypeFromText(value)); });

    info->set_ipaddress(service.address.ipaddr()); // the resolved address replaces that of "DEVICEIP"
    info->set_friendlyname(Utf8::ReplaceInvalid(service.name));
    return reader.unusable;
}

std::map<std::string, std::string> TxtFromDeviceInfo(const SonarixPb::DeviceInfo& info)
{
    std::map<std::string, std::string> txt;
    for (const TextKey& text : kTextKeys)
    {
        if (text.written != nullptr)
        {
            txt[text.key] = (info.*text.written)();
        }
    }
    for (const VersionKey& version : kVersionKeys)
    {
        txt[version.key] = "";
    }
    try
    {
        for (const VersionKey& version : kVersionKeys)
        {
            txt[version.key] =
                ProtoToMarkup::ToJson((info.multiroom_versions().*version.written)(), true, false, false);
        }
    }
    catch (const ProtoToMarkup::MarkupError& e) // the versions after the faulty one stay empty
    {
        DPRINTF(s_log, DPrint::LEVEL_ERROR, "MarkupError:%s", e.what());
    }
    return txt;
}

} // namespace SonarixService
