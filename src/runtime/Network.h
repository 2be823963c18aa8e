#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

struct sockaddr;

namespace Network
{

/// An IPv4 or IPv6 address with a port, from a resolver. A value.
class AddrInfo
{
public:
    AddrInfo() = default;
    /// Sets an empty host and port 0 for a family other than AF_INET and AF_INET6, or if `length` is too short.
    AddrInfo(const sockaddr* address, std::size_t length);

    const std::string& host() const
    {
        return m_host;
    } ///< numeric, empty if unset; IPv6 link-local with "%interface"
    std::uint16_t port() const
    {
        return m_port;
    } ///< host byte order

private:
    std::string m_host;
    std::uint16_t m_port = 0;
};

/// Address of a service: its port, and its host once resolved. A value.
class IpAddress
{
public:
    enum class Family
    {
        STREAM,
        DATAGRAM,
    };

    IpAddress() = default;
    explicit IpAddress(std::uint16_t port, Family family = Family::STREAM)
        : m_port(port)
        , m_family(family)
    {
    }
    IpAddress(const AddrInfo& address, Family family)
        : m_host(address.host())
        , m_port(address.port())
        , m_family(family)
    {
    }

    const std::string& ipaddr() const
    {
        return m_host;
    } ///< numeric host, empty until resolved
    std::uint16_t port() const
    {
        return m_port;
    }
    Family family() const
    {
        return m_family;
    }
    std::string ToString() const; ///< "10.0.0.1:8090", "[fe80::1]:8090", ":8090"

    bool operator==(const IpAddress&) const = default;

private:
    std::string m_host;
    std::uint16_t m_port = 0;
    Family m_family = Family::STREAM;
};

} // namespace Network
