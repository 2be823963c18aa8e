#include "runtime/Network.h"

#include <arpa/inet.h>
#include <cstring>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace Network
{

AddrInfo::AddrInfo(const sockaddr* address, std::size_t length)
{
    if (address == nullptr || length < sizeof(sockaddr_in)) // smaller than sockaddr_in6
    {
        return;
    }
    char text[INET6_ADDRSTRLEN] = "";
    if (address->sa_family == AF_INET)
    {
        sockaddr_in ipv4; // a copy, because the caller's bytes may be unaligned
        std::memcpy(&ipv4, address, sizeof ipv4);
        if (inet_ntop(AF_INET, &ipv4.sin_addr, text, sizeof text) != nullptr)
        {
            m_host = text;
            m_port = ntohs(ipv4.sin_port);
        }
    }
    else if (address->sa_family == AF_INET6 && length >= sizeof(sockaddr_in6))
    {
        sockaddr_in6 ipv6;
        std::memcpy(&ipv6, address, sizeof ipv6);
        if (inet_ntop(AF_INET6, &ipv6.sin6_addr, text, sizeof text) != nullptr)
        {
            m_host = text;
            m_port = ntohs(ipv6.sin6_port);
            char interface[IF_NAMESIZE];
            if (ipv6.sin6_scope_id != 0 && if_indextoname(ipv6.sin6_scope_id, interface) != nullptr)
            {
                m_host += '%';
                m_host += interface;
            }
        }
    }
}

std::string IpAddress::ToString() const
{
    const bool ipv6 = m_host.find(':') != std::string::npos;
    return (ipv6 ? '[' + m_host + ']' : m_host) + ':' + std::to_string(m_port);
}

} // namespace Network
