#include "Mdns/avahi/AvahiConvert.h"

#include "base/Utf8.h"

#include <avahi-common/domain.h>

#include <array>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>
#include <vector>

namespace MDNS
{

proto_cvtr::operator Protocol() const
{
    switch (m_protocol)
    {
    case AVAHI_PROTO_INET:
        return Protocol::INET;
    case AVAHI_PROTO_INET6:
        return Protocol::INET6;
    default:
        return Protocol::UNSPEC;
    }
}

bool IsUtf8(const ServiceId& id)
{
    return Utf8::IsValid(id.name) && Utf8::IsValid(id.type) && Utf8::IsValid(id.domain);
}

AvahiProtocol AvahiFromProtocol(Protocol protocol)
{
    switch (protocol)
    {
    case Protocol::INET:
        return AVAHI_PROTO_INET;
    case Protocol::INET6:
        return AVAHI_PROTO_INET6;
    default:
        return AVAHI_PROTO_UNSPEC;
    }
}

Network::AddrInfo AddrInfoFromAvahi(const AvahiAddress* address, std::uint16_t port)
{
    if (address == nullptr)
    {
        return {};
    }
    switch (avahi_proto_to_af(address->proto))
    {
    case AF_INET:
    {
        sockaddr_in in{};
        in.sin_family = AF_INET;
        in.sin_port = htons(port);
        in.sin_addr.s_addr = address->data.ipv4.address; // both in network byte order
        return Network::AddrInfo(reinterpret_cast<const sockaddr*>(&in), sizeof in);
    }
    case AF_INET6:
    {
        sockaddr_in6 in{};
        in.sin6_family = AF_INET6;
        in.sin6_port = htons(port);
        static_assert(sizeof in.sin6_addr.s6_addr == sizeof address->data.ipv6.address);
        std::copy(std::begin(address->data.ipv6.address), std::end(address->data.ipv6.address),
                  std::begin(in.sin6_addr.s6_addr));
        return Network::AddrInfo(reinterpret_cast<const sockaddr*>(&in), sizeof in);
    }
    default:
        return {};
    }
}

std::map<std::string, std::string> TxtFromStringList(const AvahiStringList* list)
{
    std::map<std::string, std::string> txt;
    for (; list != nullptr; list = list->next)
    {
        const std::string item(reinterpret_cast<const char*>(list->text), list->size);
        const std::size_t separator = item.find('=');
        txt[item.substr(0, separator)] = separator == std::string::npos ? "" : item.substr(separator + 1);
    }
    return txt;
}

StringList StringListFromTxt(const std::map<std::string, std::string>& txt)
{
    if (txt.empty())
    {
        return StringList(nullptr); // avahi_string_list_new_from_array() aborts on an empty array
    }
    std::vector<std::string> items;
    items.reserve(txt.size());
    for (const auto& [key, value] : txt)
    {
        items.emplace_back(key).append("=").append(value);
    }
    std::vector<const char*> pointers;
    pointers.reserve(items.size());
    for (const std::string& item : items)
    {
        pointers.push_back(item.c_str());
    }
    return StringList(avahi_string_list_new_from_array(pointers.data(), static_cast<int>(pointers.size())));
}

Network::IpAddress::Family FamilyFromType(const std::string& type)
{
    std::array<char, 64> label{}; // 63 characters (RFC 1035) and the terminating null
    const char* rest = type.c_str();
    avahi_unescape_label(&rest, label.data(), label.size());
    label[0] = '\0';
    avahi_unescape_label(&rest, label.data(), label.size());
    return strcasecmp(label.data(), "_tcp") == 0 ? Network::IpAddress::Family::STREAM
                                                 : Network::IpAddress::Family::DATAGRAM;
}

} // namespace MDNS
