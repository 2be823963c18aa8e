#pragma once

#include "runtime/Callback.h"
#include "ssdp/FetchQueue.h"
#include "ssdp/RefusalLog.h"
#include "ssdp/XmlPrecheck.h"

#include <cstddef>
#include <string>
#include <string_view>

class IHttpInterface;
class TiXmlElement;

namespace Http
{
struct HSMResponse;
} // namespace Http

namespace Sonarix
{
class ProductInfo;
} // namespace Sonarix

namespace SXCommon
{
class Icon;
class MultiroomVersions;
class ProtocolVersion;
class Service;
} // namespace SXCommon

namespace SonarixService
{

/// Fetches UPnP device descriptions over HTTP and reads them into product records, including the extension elements of
/// our own products ("kova:X_...", compared with this prefix).
/// Task: everything but the constructor runs on `task`; the exchanges run on threads of `http`.
/// Owner: SsdpDiscovery, which ends that task first; a response that arrives later is dropped with the task.
/// Never follows a redirect, and contacts only the IPv4 address that the LOCATION contains. A description that exceeds
/// a limit ends with the status of the most similar failure, and with a level-2 line that names the device and is not
/// repeated within a minute.
class SsdpDeviceParser final
{
public:
    enum ParseStatus
    {
        PARSE_SUCCESS = 0,    ///< the text is well-formed XML, of any content
        PARSE_HTTP_ERROR = 1, ///< the GET failed
        PARSE_NO_DATA = 2,    ///< no location, or an empty body
        PARSE_XML_ERROR = 3,  ///< the body is no XML
    };
    using ParseCallback = Callback<ParseStatus, Sonarix::ProductInfo>;

    /// Changes the settings of `http`; no one else uses it while this object exists. `parsed` may be empty; it is
    /// called inside ParseDevice(), so it must only post.
    SsdpDeviceParser(IHttpInterface* http, NotifyTargetTaskIF* task, ParseCallback parsed);
    ~SsdpDeviceParser();
    SsdpDeviceParser(const SsdpDeviceParser&) = delete;
    SsdpDeviceParser& operator=(const SsdpDeviceParser&) = delete;

    /// Reads the description at `location` into `info`, and calls the callback once with the status and `info`.
    void ParseDevice(std::string location, Sonarix::ProductInfo info);

    /// Limits connecting, and each whole exchange. A device on the same network takes about 50 ms.
    static constexpr int kTimeoutSec = 5;
    /// Maximum size of headers and body together, counted while they arrive.
    static constexpr std::size_t kMaxResponseBytes = XmlPrecheck::kMaxBytes;
    /// Limit for the icons of a record, and for its services. Each new LOCATION appends rows. A device over the limit
    /// is dropped, and its next announcement starts an empty record.
    static constexpr int kMaxRows = 256;
    /// Limit for the size of a record, to which each new LOCATION appends: twice the largest description.
    static constexpr std::size_t kMaxRecordBytes = 2 * kMaxResponseBytes;

private:
    void ParseLocation(const std::string& location, const Sonarix::ProductInfo& info);
    bool Fetch(IPv4 host, const std::string& location, const Sonarix::ProductInfo& info);
    void Fail(const Sonarix::ProductInfo& info, const std::string& why);
    void LogRefusal(const Sonarix::ProductInfo& info, const char* what, std::string_view why);
    void DeviceDataResponse(const Http::HSMResponse& response, Sonarix::ProductInfo info);
    ParseStatus ParseDeviceData(const std::string& data, Sonarix::ProductInfo& info);

    static void ParseDeviceInfo(TiXmlElement* element, Sonarix::ProductInfo& info);
    static void ParseMultiroomVersions(TiXmlElement* element, SXCommon::MultiroomVersions& multiroom);
    static void ParseVersionInfo(TiXmlElement* element, SXCommon::ProtocolVersion& version);
    static void ParseIconInfo(TiXmlElement* element, Sonarix::ProductInfo& info);
    static void ParseServiceInfo(TiXmlElement* element, Sonarix::ProductInfo& info);

    IHttpInterface* const m_http;
    NotifyTargetTaskIF* const m_task;
    const ParseCallback m_parseCb;
    FetchQueue m_queue;
    RefusalLog m_refusals;
};

/// "PARSE_SUCCESS" and so on; "(?)" for a value outside the enumeration.
const char* Name(SsdpDeviceParser::ParseStatus status);

} // namespace SonarixService
