#pragma once

#include "Mdns/MdnsTypes.h"
#include "runtime/Network.h"

#include <avahi-common/address.h>
#include <avahi-common/strlst.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

/// Avahi's values and ours. Stateless, safe from any thread.
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

/// Converts by itself into what it wraps, so that it can stand in a callback's parameter list.
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

/// A string that Avahi may leave null, as it does on the events that are about no service: then "".
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

AvahiProtocol ToAvahi(Protocol protocol);

/// True where all texts of the id are UTF-8. Others must not reach the library: its bus aborts the process on them.
bool IsText(const ServiceId& id);

/// `port` in host byte order. A null `address` gives an empty host and port 0.
Network::AddrInfo ToAddrInfo(const AvahiAddress* address, std::uint16_t port);

/// The TXT items: split at the first "="; one without is a key with an empty value; of a key given twice the last
/// value counts. The bytes are a neighbour's: nothing is said about their content.
std::map<std::string, std::string> ToTxtMap(const AvahiStringList* list);

/// The items `key=value`. Empty for no items (which is a legal list).
StringList ToStringList(const std::map<std::string, std::string>& txt);

/// The transport in the second label of a service type: a stream for "_tcp", else datagrams.
Network::IpAddress::Family FamilyOfType(const std::string& type);

} // namespace MDNS
