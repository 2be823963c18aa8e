#pragma once

#include "Mdns/avahi/MdnsTypes.h"
#include "runtime/Network.h"

#include <avahi-common/address.h>
#include <avahi-common/strlst.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

/// Conversions between the types of Avahi and of MDNS. Stateless, safe from any thread.
namespace MDNS
{

struct StringListFree
{
    void operator()(AvahiStringList* list) const
    {
        avahi_string_list_free(list);
    }
};
using StringList = std::unique_ptr<AvahiStringList, StringListFree>;

/// Converts an AvahiProtocol implicitly, for use in the parameter list of a callback.
class proto_cvtr
{
public:
    proto_cvtr(AvahiProtocol protocol)
        : m_protocol(protocol)
    {
    }
    operator Protocol() const;

private:
    AvahiProtocol m_protocol;
};

/// Converts a C string implicitly; null becomes "". Avahi passes null names with events that concern no service.
class nullable_str
{
public:
    nullable_str(const char* text)
        : m_text(text)
    {
    }
    operator std::string() const
    {
        return m_text != nullptr ? m_text : "";
    }

private:
    const char* m_text;
};

AvahiProtocol AvahiFromProtocol(Protocol protocol);

/// True if all texts of the id are UTF-8. Other texts must not be passed to Avahi: libdbus aborts the process.
bool IsUtf8(const ServiceId& id);

/// `port` is in host byte order. A null `address` gives an empty host and port 0.
Network::AddrInfo AddrInfoFromAvahi(const AvahiAddress* address, std::uint16_t port);

/// Splits each TXT item at the first "=". An item without "=" is a key with an empty value. If a key occurs twice, the
/// last value is kept. Keys and values come from the network unchecked: they may hold any bytes.
std::map<std::string, std::string> TxtFromStringList(const AvahiStringList* list);

/// A list of `key=value` items. Null if there are none; Avahi accepts that as an empty list.
StringList StringListFromTxt(const std::map<std::string, std::string>& txt);

/// STREAM if the second label of the service type is "_tcp", otherwise DATAGRAM.
Network::IpAddress::Family FamilyFromType(const std::string& type);

} // namespace MDNS
