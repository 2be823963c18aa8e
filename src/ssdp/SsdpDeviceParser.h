#pragma once

#include "ssdp/FetchQueue.h"
#include "ssdp/InterfaceLink.h"
#include "ssdp/RefusalLog.h"
#include "ssdp/SsdpDeviceParserIF.h"
#include "ssdp/XmlLook.h"

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

/// Fetches UPnP device descriptions over HTTP and reads them into product records, the extension elements of our own
/// products included ("kova:X_...", with that very prefix).
/// Task: everything runs on the one that it was made with; the exchanges run on threads of `http`.
/// Owner: SsdpDiscovery, whose task it is. Its end drops the fetches that wait for their turn; it cancels none that has
/// begun, and those come to nothing once the task has stopped.
/// Never follows a redirect, and asks no host but one that the LOCATION gives by its IPv4 address. What is over a bound
/// ends with the status of the failure that it is nearest to, and a level-2 line that names the device, which is
/// not repeated for a minute.
class SsdpDeviceParser final : public SsdpDeviceParserIF
{
public:
    /// Sets up `http`, which is this parser's alone as long as it lives. `parsed` may be empty.
    SsdpDeviceParser(IHttpInterface* http, NotifyTargetTaskIF* task, ParseCallback parsed);
    ~SsdpDeviceParser() override;
    SsdpDeviceParser(const SsdpDeviceParser&) = delete;
    SsdpDeviceParser& operator=(const SsdpDeviceParser&) = delete;

    void ParseDevice(std::string location, Sonarix::ProductInfo info) override;

    /// For connecting, and for each whole exchange: what a device in the same house takes some 50 ms for.
    static constexpr int kTimeoutSec = 5;
    /// Headers and body together, counted as they arrive.
    static constexpr std::size_t kMaxAnswerBytes = XmlLook::kMaxBytes;
    /// Rows of a record's icons, and of its services. They pile up with each new LOCATION, since rows are appended;
    /// a device that has so many starts afresh when it is sighted next.
    static constexpr int kMaxRows = 256;
    /// A record's size: twice what one description can say, for the same reason.
    static constexpr std::size_t kMaxRecordBytes = 2 * kMaxAnswerBytes;

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

} // namespace SonarixService
