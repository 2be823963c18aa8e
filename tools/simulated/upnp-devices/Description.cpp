#include "tools/simulated/upnp-devices/Description.h"

#include <cstddef>
#include <sstream>
#include <utility>

namespace
{

constexpr const char* kDescriptionPath = "/description.xml";
constexpr const char* kMovedPath = "/moved.xml";
constexpr const char* kType = "text/xml; charset=\"utf-8\"";
constexpr std::size_t kLongLocationBytes = 2500;
constexpr int kDeepLevels = 100'000;
constexpr std::uint64_t kHugeBytes = std::uint64_t{100} << 20U;

struct Versions
{
    const char* name;
    int major;
    int minor;
};
constexpr Versions kVersions[] = {
    {"Audio_Payload_Version", 2, 1}, {"AudioControl_Protocol_Version", 3, 0}, {"ClockSync_Protocol_Version", 1, 4},
    {"NowPlaying_Version", 4, 0},    {"PlaybackRequest_Version", 2, 2},       {"Grouping_Version", 1, 1},
};

std::string Element(const std::string& name, const std::string& text)
{
    return "<" + name + ">" + text + "</" + name + ">\n";
}

std::string FamilyElements(const Identity& identity)
{
    std::string versions;
    for (const Versions& version : kVersions)
    {
        versions += Element(version.name, Element("major_version", std::to_string(version.major)) +
                                              Element("minor_version", std::to_string(version.minor)));
    }
    return Element("kova:X_MAC", MacAddress(identity)) + Element("kova:X_ecoSystem", Family::kEcosystem) +
           Element("kova:X_productType", Family::kProductType) + Element("kova:X_productColor", Family::kColor) +
           Element("kova:X_softwareVersion", Family::kSoftware) + Element("kova:X_multiroomVersions", versions);
}

std::string Service(const std::string& name)
{
    return Element("service", Element("serviceType", "urn:schemas-upnp-org:service:" + name + ":1") +
                                  Element("serviceId", "urn:upnp-org:serviceId:" + name) +
                                  Element("SCPDURL", "/" + name + ".xml") +
                                  Element("controlURL", "/" + name + "/control") +
                                  Element("eventSubURL", "/" + name + "/event"));
}

std::string Icon(int size)
{
    const std::string pixels = std::to_string(size);
    return Element("icon", Element("mimetype", "image/png") + Element("width", pixels) + Element("height", pixels) +
                               Element("depth", "24") + Element("url", "/icon-" + pixels + ".png"));
}

/// The device description. `name` must be escaped already.
std::string Description(const Identity& identity, bool isOfFamily, const std::string& name)
{
    const std::string maker = isOfFamily ? Family::kManufacturer : "Another Maker";
    const std::string device =
        Element("deviceType", "urn:schemas-upnp-org:device:MediaRenderer:1") + Element("friendlyName", name) +
        Element("manufacturer", maker) + Element("manufacturerURL", "http://example.com/") +
        Element("modelDescription", "Media Renderer") + Element("modelName", isOfFamily ? Family::kModel : "Receiver") +
        Element("modelNumber", "1") + Element("serialNumber", SerialNumber(identity)) +
        Element("UDN", "uuid:" + identity.guid) + Element("presentationURL", "http://" + identity.address + "/") +
        (isOfFamily ? FamilyElements(identity) : std::string()) + Element("iconList", Icon(48) + Icon(120)) +
        Element("serviceList", Service("RenderingControl") + Service("ConnectionManager") + Service("AVTransport"));
    return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
           "<root xmlns=\"urn:schemas-upnp-org:device-1-0\" xmlns:kova=\"urn:kova-com:device-1-0\">\n" +
           Element("specVersion", Element("major", "1") + Element("minor", "0")) + Element("device", device) +
           "</root>\n";
}

std::string Repeated(const std::string& text, int times)
{
    std::string all;
    all.reserve(text.size() * static_cast<std::size_t>(times));
    for (int count = 0; count < times; ++count)
    {
        all += text;
    }
    return all;
}

/// Inserts `more` before the <device> element.
std::string Before(const std::string& description, const std::string& more)
{
    std::string text = description;
    return text.insert(text.find("<device>"), more);
}

std::string WithEntities(const std::string& description)
{
    std::string doctype = "<!DOCTYPE root [\n<!ENTITY e0 \"ha\">\n";
    for (int number = 1; number <= 9; ++number)
    {
        const std::string before = "&e" + std::to_string(number - 1) + ";";
        doctype += "<!ENTITY e" + std::to_string(number) + " \"" + Repeated(before, 10) + "\">\n";
    }
    std::string text = description;
    text.insert(text.find("<root"), doctype + "]>\n");
    return text.insert(text.find("</friendlyName>"), "&e9;");
}

/// UTF-16 with a byte order mark; `text` must be ASCII.
std::string Utf16(const std::string& text)
{
    std::string wide = "\xff\xfe";
    for (const char c : text)
    {
        wide += c;
        wide += '\0';
    }
    return wide;
}

std::string WithEncoding(std::string description, const std::string& encoding)
{
    const std::string old = "utf-8";
    return description.replace(description.find(old), old.size(), encoding);
}

std::string Head(const std::string& status, const std::string& headers, const std::string& length)
{
    return "HTTP/1.1 " + status + "\r\n" + headers + "CONTENT-TYPE: " + kType + "\r\nCONNECTION: close\r\n" +
           (length.empty() ? "" : "CONTENT-LENGTH: " + length + "\r\n") + "\r\n";
}

HttpResponse Whole(const std::string& body, const std::string& status = "200 OK", const std::string& headers = "")
{
    return {Head(status, headers, std::to_string(body.size())) + body};
}

HttpResponse Filled(const std::string& body, std::uint64_t filler, const std::string& length)
{
    return {Head("200 OK", "", length) + body, HttpResponse::Pace::AT_ONCE, filler};
}

} // namespace

HttpResponse AnswerOf(Kind kind, const Identity& identity, const std::string& path)
{
    const std::string good = Description(identity, IsOfFamily(kind), identity.name);
    const std::string other = Description(identity, true,
                                          "K\xfc"
                                          "che " +
                                              identity.name);
    switch (kind)
    {
    case Kind::SILENT_SERVER:
        return {"", HttpResponse::Pace::NEVER};
    case Kind::SLOW_SERVER:
        return {Whole(good).bytes, HttpResponse::Pace::BYTE_A_SECOND};
    case Kind::STATUS_404:
        return Whole(good, "404 Not Found");
    case Kind::STATUS_500:
        return Whole(good, "500 Internal Server Error");
    case Kind::STATUS_503:
        return Whole(good, "503 Service Unavailable", "Retry-After: 43200\r\nX-Retry-Count: -1\r\n");
    case Kind::REDIRECT:
        return path == kMovedPath ? Whole(good)
                                  : Whole("", "302 Found", std::string("Location: ") + kMovedPath + "\r\n");
    case Kind::HUGE_BODY:
        return Filled(good, kHugeBytes - good.size(), std::to_string(kHugeBytes));
    case Kind::ENDLESS_BODY:
        return Filled(good, HttpResponse::kEndless, "");
    case Kind::CUT_XML:
        return Whole(good.substr(0, good.find("</kova:X_productType>") + 8));
    case Kind::DEEP_XML:
        return Whole(Before(good, Repeated("<a>", kDeepLevels) + Repeated("</a>", kDeepLevels)));
    case Kind::ENTITY_XML:
        return Whole(WithEntities(good));
    case Kind::LATIN1_XML:
        return Whole(WithEncoding(other, "ISO-8859-1"));
    case Kind::UTF16_XML:
        return Whole(Utf16(WithEncoding(good, "UTF-16")));
    case Kind::NUL_BYTE:
        return Whole(std::string(good).insert(good.find("</modelName>"), 1, '\0'));
    case Kind::EMPTY_BODY:
        return Whole("");
    default:
        return Whole(good);
    }
}

std::string LocationOf(Kind kind, const Identity& identity, std::uint16_t port)
{
    const std::string tail = ":" + std::to_string(port) + kDescriptionPath;
    const std::string good = "http://" + identity.address + tail;
    switch (kind)
    {
    case Kind::EMPTY_LOCATION:
        return "";
    case Kind::LONG_LOCATION:
        return good + "?" + std::string(kLongLocationBytes - good.size(), 'x');
    case Kind::OTHER_SCHEME:
        return "ftp://" + identity.address + tail;
    case Kind::LOOPBACK_LOCATION:
        return "http://127.0.0.1" + tail;
    default:
        return good;
    }
}
