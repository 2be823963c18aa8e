#include "ssdp/SsdpDeviceParser.h"

#include "base/EnumName.h"
#include "http/IHttpInterface.h"
#include "runtime/AsyncCallback.h"
#include "runtime/DPrint.h"
#include "runtime/MonotonicClock.h"
#include "runtime/TaskCheck.h"
#include "schemas/Sonarix.pb.h"
#include "ssdp/Location.h"
#include "ssdp/XmlFunctions.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string_view>
#include <system_error>
#include <tinyxml.h>
#include <utility>
#include <vector>

namespace SonarixService
{

namespace
{

const DPrint s_log("SsdpDeviceParser");

/// The name of an element, and the function that sets the field or returns it for writing.
template <class Message, class Result, class... Args>
using Field = std::pair<std::string_view, Result (Message::*)(Args...)>;
template <class Message>
using TextField = Field<Message, std::string*>;
template <class Message>
using NumberField = Field<Message, void, std::int32_t>;

using Info = Sonarix::ProductInfo;
constexpr TextField<Info> kInfoFields[] = {
    {"deviceType", &Info::mutable_devicetype},
    {"presentationURL", &Info::mutable_presentationurl},
    {"friendlyName", &Info::mutable_friendlyname},
    {"manufacturer", &Info::mutable_manufacturer},
    {"manufacturerURL", &Info::mutable_manufacturerurl},
    {"modelDescription", &Info::mutable_modeldescription},
    {"modelName", &Info::mutable_modelname},
    {"modelNumber", &Info::mutable_modelnumber},
    {"modelURL", &Info::mutable_modelurl},
    {"serialNumber", &Info::mutable_serialnumber},
    {"UDN", &Info::mutable_udn},
    {"UPC", &Info::mutable_upc},
    {"kova:X_MAC", &Info::mutable_macaddress},
    {"kova:X_ecoSystem", &Info::mutable_ecosystem},
    {"kova:X_productType", &Info::mutable_producttype},
    {"kova:X_productColor", &Info::mutable_productcolor},
    {"kova:X_softwareVersion", &Info::mutable_softwareversion},
};

using Multiroom = SXCommon::MultiroomVersions;
constexpr Field<Multiroom, SXCommon::ProtocolVersion*> kMultiroomFields[] = {
    {"Audio_Payload_Version", &Multiroom::mutable_audio_payload_version},
    {"AudioControl_Protocol_Version", &Multiroom::mutable_audiocontrol_protocol_version},
    {"ClockSync_Protocol_Version", &Multiroom::mutable_clocksync_protocol_version},
    {"NowPlaying_Version", &Multiroom::mutable_nowplaying_version},
    {"PlaybackRequest_Version", &Multiroom::mutable_playbackrequest_version},
    {"Grouping_Version", &Multiroom::mutable_grouping_version},
};

using Version = SXCommon::ProtocolVersion;
constexpr NumberField<Version> kVersionFields[] = {
    {"major_version", &Version::set_major_version},
    {"minor_version", &Version::set_minor_version},
};

using Icon = SXCommon::Icon;
constexpr TextField<Icon> kIconTexts[] = {
    {"mimetype", &Icon::mutable_mimetype},
    {"url", &Icon::mutable_url},
};
constexpr NumberField<Icon> kIconNumbers[] = {
    {"height", &Icon::set_height},
    {"width", &Icon::set_width},
    {"depth", &Icon::set_depth},
};

using Service = SXCommon::Service;
constexpr TextField<Service> kServiceFields[] = {
    {"serviceType", &Service::mutable_servicetype}, {"serviceId", &Service::mutable_serviceid},
    {"SCPDURL", &Service::mutable_scpdurl},         {"controlURL", &Service::mutable_controlurl},
    {"eventSubURL", &Service::mutable_eventsuburl},
};

/// Returns the member of the field, or null if no field has that name.
template <class Member, std::size_t N>
Member FieldOf(const std::pair<std::string_view, Member> (&fields)[N], const std::string& name)
{
    const auto found =
        std::find_if(std::begin(fields), std::end(fields), [&name](const auto& field) { return field.first == name; });
    return found == std::end(fields) ? nullptr : found->second;
}

template <class Message, std::size_t N>
void StoreText(const TextField<Message> (&fields)[N], const std::string& name, const std::string& text,
               Message& message)
{
    if (const auto field = FieldOf(fields, name))
    {
        *(message.*field)() = text;
    }
}

template <class Message, std::size_t N>
void StoreNumber(const NumberField<Message> (&fields)[N], const std::string& name, const std::string& text,
                 Message& message)
{
    if (const auto field = FieldOf(fields, name))
    {
        (message.*field)(static_cast<std::int32_t>(XML::ToUnsigned(text)));
    }
}

struct Child
{
    TiXmlElement* element;
    std::string name;
    std::string text;
};

std::vector<Child> ChildrenOf(TiXmlElement* element)
{
    std::vector<Child> children;
    for (TiXmlElement* child = element->FirstChildElement(); child != nullptr; child = child->NextSiblingElement())
    {
        children.push_back({child, XML::ExtractElementName(child), XML::ExtractText(child)});
    }
    return children;
}

} // namespace

const char* Name(SsdpDeviceParser::ParseStatus status)
{
    static constexpr const char* kNames[] = {"PARSE_SUCCESS", "PARSE_HTTP_ERROR", "PARSE_NO_DATA", "PARSE_XML_ERROR"};
    return EnumName(kNames, status);
}

SsdpDeviceParser::SsdpDeviceParser(IHttpInterface* http, NotifyTargetTaskIF* task, ParseCallback parsed)
    : m_http(http)
    , m_task(task)
    , m_parseCb(std::move(parsed))
    , m_queue(task)
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    m_http->SetRetries(0);
    m_http->SetTimeout(kTimeoutSec);
    m_http->SetMaxResponseBytes(kMaxResponseBytes);
    m_http->SetMaxSleepingRequests(FetchQueue::kMaxSleeping);
}

SsdpDeviceParser::~SsdpDeviceParser()
{
    TASK_CHECK(m_task);
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
}

void SsdpDeviceParser::ParseDevice(std::string location, Sonarix::ProductInfo info)
{
    TASK_CHECK(m_task);
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    info.set_location(location);
    ParseLocation(location, info);
}

void SsdpDeviceParser::ParseLocation(const std::string& location, const Sonarix::ProductInfo& info)
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    if (location.empty())
    {
        DPRINT(s_log, DPrint::LEVEL_WARNING, "No location given for device XML");
        m_parseCb(PARSE_NO_DATA, info);
        return;
    }
    const std::optional<IPv4> host = HostOfLocation(location);
    if (!host)
    {
        Fail(info, "its LOCATION is no URL of an IPv4 address"); // looking up a name has no time limit
        return;
    }
    const char* const why = m_queue.Add({*host, [this, host, location, info] { return Fetch(*host, location, info); },
                                         [this, info] { Fail(info, "it has waited too long in the queue"); }});
    if (why != nullptr)
    {
        Fail(info, why);
    }
}

/// Requests the description. Returns false if that has failed and the callback has been called.
bool SsdpDeviceParser::Fetch(IPv4 host, const std::string& location, const Sonarix::ProductInfo& info)
{
    const AsyncCallback<Http::HSMResponse> response(
        [this, host, info](const Http::HSMResponse& received)
        {
            m_queue.Ended(host, received.curlStatus == 0);
            DeviceDataResponse(received, info);
        },
        m_task);
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "GET '" << location << "'");
    try
    {
        m_http->Get(location, response, 0, "", 0, 0, {});
    }
    catch (const std::system_error& error)
    {
        Fail(info, error.what());
        return false;
    }
    return true;
}

void SsdpDeviceParser::Fail(const Sonarix::ProductInfo& info, const std::string& why)
{
    LogRefusal(info, "fetched", why);
    m_parseCb(PARSE_HTTP_ERROR, info);
}

void SsdpDeviceParser::LogRefusal(const Sonarix::ProductInfo& info, const char* what, std::string_view why)
{
    m_refusals.Add(why);
    const IPv4 host = HostOfLocation(info.location()).value_or(0);
    if (s_log.IsLog(DPrint::LEVEL_WARNING) && m_refusals.MayLog(host, why, MonotonicClock::NowMs()))
    {
        DPRINT(s_log, DPrint::LEVEL_WARNING,
               "the description at '" << info.location() << "' of '" << info.guid() << "' is not " << what << ": "
                                      << why << " (" << m_refusals.Count(why) << " times so far)");
    }
}

void SsdpDeviceParser::DeviceDataResponse(const Http::HSMResponse& response, Sonarix::ProductInfo info)
{
    TASK_CHECK(m_task);
    DPRINT(s_log, DPrint::LEVEL_DEBUG, response.status << " (" << response.curlStatus << ")");
    if (response.status >= 400 || response.curlStatus != 0)
    {
        DPRINT(s_log, DPrint::LEVEL_WARNING,
               "GET failed, responseStatus=" << response.status << ", curl_status=" << response.curlStatus);
        m_parseCb(PARSE_HTTP_ERROR, info);
        return;
    }
    if (response.body.empty())
    {
        DPRINT(s_log, DPrint::LEVEL_WARNING, "");
        LogRefusal(info, "parsed", "it is empty");
        m_parseCb(PARSE_NO_DATA, info);
        return;
    }
    const ParseStatus status = ParseDeviceData(response.body, info);
    m_parseCb(status, info);
}

/// Reads the description `data` into `info`. Leaves `info` unchanged on failure.
SsdpDeviceParser::ParseStatus SsdpDeviceParser::ParseDeviceData(const std::string& data, Sonarix::ProductInfo& info)
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    TiXmlDocument document;
    const char* why = XmlPrecheck::WhyNotToParse(data);
    if (why == nullptr && !XML::Parse(&document, data))
    {
        why = "it is not well-formed XML";
    }
    if (why != nullptr)
    {
        DPRINT(s_log, DPrint::LEVEL_WARNING, "Error parsing XML data.");
        LogRefusal(info, "parsed", why);
        return PARSE_XML_ERROR;
    }
    const TiXmlHandle device = TiXmlHandle(&document).FirstChild("root").FirstChild("device");
    Sonarix::ProductInfo filled = info;
    ParseDeviceInfo(device.ToElement(), filled);
    ParseIconInfo(device.FirstChild("iconList").ToElement(), filled);
    ParseServiceInfo(device.FirstChild("serviceList").ToElement(), filled);
    if (filled.icons_size() > kMaxRows || filled.services_size() > kMaxRows || filled.ByteSizeLong() > kMaxRecordBytes)
    {
        LogRefusal(info, "taken", "it has too many icons or services");
        return PARSE_XML_ERROR;
    }
    info.Swap(&filled);
    return PARSE_SUCCESS;
}

void SsdpDeviceParser::ParseDeviceInfo(TiXmlElement* element, Sonarix::ProductInfo& info)
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    if (element == nullptr)
    {
        DPRINT(s_log, DPrint::LEVEL_WARNING, "Unable to find 'device' element in XML.");
        return;
    }
    for (const auto& [child, name, text] : ChildrenOf(element))
    {
        DPRINT(s_log, DPrint::LEVEL_FINEST, name << " = " << text);
        StoreText(kInfoFields, name, text, info);
        if (name == "kova:X_multiroomVersions")
        {
            ParseMultiroomVersions(child, *info.mutable_multiroom());
        }
    }
}

void SsdpDeviceParser::ParseMultiroomVersions(TiXmlElement* element, SXCommon::MultiroomVersions& multiroom)
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    for (const auto& [child, name, text] : ChildrenOf(element))
    {
        DPRINTF(s_log, DPrint::LEVEL_FINEST, "%s -    %s", __func__, name.c_str());
        if (const auto field = FieldOf(kMultiroomFields, name))
        {
            ParseVersionInfo(child, *(multiroom.*field)());
        }
    }
}

void SsdpDeviceParser::ParseVersionInfo(TiXmlElement* element, SXCommon::ProtocolVersion& version)
{
    for (const auto& [child, name, text] : ChildrenOf(element))
    {
        DPRINTF(s_log, DPrint::LEVEL_FINEST, "%s -    %s = %s", __func__, name.c_str(), text.c_str());
        StoreNumber(kVersionFields, name, text, version);
    }
}

void SsdpDeviceParser::ParseIconInfo(TiXmlElement* element, Sonarix::ProductInfo& info)
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    if (element == nullptr)
    {
        DPRINTF(s_log, DPrint::LEVEL_DEBUG, "%s: Unable to find 'iconList' element in XML.", __func__);
        return;
    }
    // After the first "icon", every element is read as an icon, whatever its name.
    for (TiXmlElement* row = element->FirstChildElement("icon"); row != nullptr; row = row->NextSiblingElement())
    {
        SXCommon::Icon& icon = *info.add_icons();
        for (const auto& [child, name, text] : ChildrenOf(row))
        {
            DPRINTF(s_log, DPrint::LEVEL_FINEST, "%s -    %s = %s", __func__, name.c_str(), text.c_str());
            StoreText(kIconTexts, name, text, icon);
            StoreNumber(kIconNumbers, name, text, icon);
        }
    }
}

void SsdpDeviceParser::ParseServiceInfo(TiXmlElement* element, Sonarix::ProductInfo& info)
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    if (element == nullptr)
    {
        DPRINT(s_log, DPrint::LEVEL_DEBUG, "Unable to find 'serviceList' element in XML.");
        return;
    }
    for (TiXmlElement* row = element->FirstChildElement("service"); row != nullptr; row = row->NextSiblingElement())
    {
        SXCommon::Service& service = *info.add_services();
        for (const auto& [child, name, text] : ChildrenOf(row))
        {
            DPRINT(s_log, DPrint::LEVEL_FINEST, name << " = " << text);
            StoreText(kServiceFields, name, text, service);
        }
    }
}

} // namespace SonarixService
