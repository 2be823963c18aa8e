#include "bench/micro/SampleDescriptions.h"

#include "ssdp/XmlPrecheck.h"

namespace
{

constexpr std::size_t kLargeBytes = 16U << 10U;

std::string Repeated(const std::string& text, int times)
{
    std::string all;
    for (int count = 0; count < times; ++count)
    {
        all += text;
    }
    return all;
}

/// `begin`, `filler` repeated up to `size`, `end`.
std::string Filled(const std::string& begin, const std::string& filler, const std::string& end,
                   std::size_t size = XmlPrecheck::kMaxBytes)
{
    return begin + Repeated(filler, static_cast<int>((size - begin.size() - end.size()) / filler.size())) + end;
}

} // namespace

std::string SampleDescriptions::Large()
{
    const std::string service =
        "<service><serviceType>urn:schemas-upnp-org:service:RenderingControl:1</serviceType>"
        "<serviceId>urn:upnp-org:serviceId:RenderingControl</serviceId><SCPDURL>/rendering/description.xml</SCPDURL>"
        "<controlURL>/rendering/control</controlURL><eventSubURL>/rendering/event</eventSubURL></service>\n";
    return Filled("<?xml version=\"1.0\"?>\n<root xmlns=\"urn:schemas-upnp-org:device-1-0\"><device>"
                  "<friendlyName>Living Room</friendlyName><modelName>Sonarix One</modelName><serviceList>\n",
                  service, "</serviceList></device></root>\n", kLargeBytes);
}

std::vector<std::string> SampleDescriptions::Bad()
{
    constexpr int kElements = static_cast<int>(XmlPrecheck::kMaxTags / 2) - 1;
    constexpr int kAttributes = XmlPrecheck::kMaxAttributes;
    // Unmatched end tags lower the level that XmlPrecheck counts, so that more levels can follow.
    const std::string ends = Repeated("</a>", kElements - XmlPrecheck::kMaxLevels);
    std::string attributes;
    for (int number = 0; number < kAttributes; ++number)
    {
        attributes += " attribute-" + std::to_string(number) + "='x'";
    }
    return {
        Filled("<r>" + Repeated("<a>b</a>", kElements), "text ", "</r>"),
        Filled(Repeated("<a>", XmlPrecheck::kMaxLevels - 1) + Repeated("<a/>", kElements), "text ", ""),
        Filled(ends + Repeated("<a>", kElements), "text ", ""),
        Filled("<r>" + Repeated("<a" + attributes + "/>", static_cast<int>(XmlPrecheck::kMaxEqualSigns) / kAttributes),
               "text ", "</r>"),
        Filled("<r>", "&#x20AC;", "</r>"),
        Filled("<r a='", "&amp;", "'/>"),
        Filled("<r>" + Repeated("<!---->", kElements), " ", "</r>"),
    };
}
