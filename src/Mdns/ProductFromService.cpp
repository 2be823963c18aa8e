#include "Mdns/ProductFromService.h"

#include "Mdns/MdnsTypes.h"
#include "base/Utf8.h"
#include "schemas/Sonarix.pb.h"
#include <ProtoToMarkup.h>

namespace SonarixService
{

namespace
{

/// Looks up the records of one service and keeps book of those that cannot be used.
class TxtReader
{
public:
    explicit TxtReader(const MDNS::Service& service)
        : m_txt(service.txt)
    {
    }

    /// Null where the record is missing or is no text.
    const std::string* Text(const char* key)
    {
        const auto record = m_txt.find(key);
        if (record == m_txt.end())
        {
            return nullptr;
        }
        if (!Utf8::IsValid(record->second))
        {
            m_leftOut += m_leftOut.empty() ? key : std::string(" ") + key;
            return nullptr;
        }
        return &record->second;
    }

    /// Calls `set` with the record's value.
    template <class Setter>
    void Copy(const char* key, Setter set)
    {
        if (const std::string* const text = Text(key))
        {
            set(*text);
        }
    }

    /// Merges the record into what `mutableField` gives, which is only called for a record that can be used.
    template <class MutableField>
    void Version(const char* key, MutableField mutableField)
    {
        const std::string* const text = Text(key);
        if (text == nullptr)
        {
            return;
        }
        SXCommon::ProtocolVersion version;
        try
        {
            ProtoToMarkup::FromJson(*text, &version);
        }
        catch (const ProtoToMarkup::MarkupError&)
        {
            m_leftOut += m_leftOut.empty() ? key : std::string(" ") + key;
            return;
        }
        mutableField()->MergeFrom(version);
    }

    const std::string& LeftOut() const
    {
        return m_leftOut;
    }

private:
    const std::map<std::string, std::string>& m_txt;
    std::string m_leftOut;
};

SXCommon::ConnectionType ToConnectionType(const std::string& text)
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
    TxtReader txt(service);
    txt.Copy("GUID", [info](const std::string& value) { info->set_guid(value); });
    txt.Copy("MANUFACTURER", [info](const std::string& value) { info->set_manufacturer(value); });
    txt.Copy("ECOSYS", [info](const std::string& value) { info->set_ecosystem(value); });
    txt.Copy("PTYPE", [info](const std::string& value) { info->set_producttype(value); });
    txt.Copy("PNAME", [info](const std::string& value) { info->set_modelname(value); });
    txt.Copy("PCOLOR", [info](const std::string& value) { info->set_productcolor(value); });
    txt.Copy("SWVERSION", [info](const std::string& value) { info->set_softwareversion(value); });
    txt.Copy("MAC", [info](const std::string& value) { info->set_macaddress(value); });
    txt.Copy("DEVICEIP", [info](const std::string& value) { info->set_ipaddress(value); });

    txt.Version("AudioPayloadVersion", [info] { return info->mutable_multiroom()->mutable_audio_payload_version(); });
    txt.Version("AudioControlProtocolVersion",
                [info] { return info->mutable_multiroom()->mutable_audiocontrol_protocol_version(); });
    txt.Version("ClockSyncProtocolVersion",
                [info] { return info->mutable_multiroom()->mutable_clocksync_protocol_version(); });
    txt.Version("NowPlayingVersion", [info] { return info->mutable_multiroom()->mutable_nowplaying_version(); });
    txt.Version("PlaybackRequestVersion",
                [info] { return info->mutable_multiroom()->mutable_playbackrequest_version(); });
    txt.Version("GroupingVersion", [info] { return info->mutable_multiroom()->mutable_grouping_version(); });

    SXCommon::ClockInfo* const clock = info->mutable_clockinfo(); // present even if empty
    txt.Copy("CLOCKDOMAIN", [clock](const std::string& value) { clock->set_clockdomain(value); });
    txt.Copy("LEADERELECTED", [clock](const std::string& value) { clock->set_leaderelected(value == "true"); });
    txt.Copy("BATTERY", [clock](const std::string& value) { clock->set_hasbattery(value == "true"); });
    txt.Copy("ISCLOCKSYNCED", [clock](const std::string& value) { clock->set_isclocksynced(value == "true"); });
    txt.Copy("CONNECTIONTYPE", [clock](const std::string& value) { clock->set_connection(ToConnectionType(value)); });

    info->set_ipaddress(service.address.ipaddr()); // what was resolved beats what the record claims
    info->set_friendlyname(Utf8::ReplaceInvalid(service.name));
    return txt.LeftOut();
}

} // namespace SonarixService
