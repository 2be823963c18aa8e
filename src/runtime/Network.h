#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

struct sockaddr;

namespace Network
{

/// An IPv4 or IPv6 host with a port, as a resolver gives it. A value.
class AddrInfo
{
public:
    AddrInfo() = default;
    /// A family other than AF_INET and AF_INET6, or a `length` too short for it, gives an empty host and port 0.
    AddrInfo(const sockaddr* address, std::size_t length);

    const std::string& host() const
    {
        return m_host;
    } ///< numeric text, empty when there is none
    std::uint16_t port() const
    {
        return m_port;
    } ///< host byte order

private:
    std::string m_host;
    std::uint16_t m_port = 0;
};

/// Where a service is reached: a port, and the host part when resolved. A value.
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
    } ///< numeric host text, empty while unresolved
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
