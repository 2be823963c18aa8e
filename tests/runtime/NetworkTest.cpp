#include "runtime/Network.h"

#include <arpa/inet.h>
#include <cstring>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace
{

using Network::AddrInfo;
using Network::IpAddress;

TEST(NetworkTest, ConvertsAddressesOfBothFamilies)
{
    sockaddr_in ipv4 = {};
    ipv4.sin_family = AF_INET;
    ipv4.sin_port = htons(8090);
    inet_pton(AF_INET, "10.0.0.1", &ipv4.sin_addr);
    const auto* const plain = reinterpret_cast<const sockaddr*>(&ipv4);
    const IpAddress resolved(AddrInfo(plain, sizeof ipv4), IpAddress::Family::STREAM);
    EXPECT_EQ(resolved.ipaddr(), "10.0.0.1");
    EXPECT_EQ(resolved.port(), 8090);
    EXPECT_EQ(resolved.ToString(), "10.0.0.1:8090");
    EXPECT_NE(resolved, IpAddress(8090));
    EXPECT_EQ(IpAddress(8090, IpAddress::Family::DATAGRAM).ToString(), ":8090");

    sockaddr_in6 ipv6 = {};
    ipv6.sin6_family = AF_INET6;
    ipv6.sin6_port = htons(1);
    inet_pton(AF_INET6, "fe80::1", &ipv6.sin6_addr);
    const auto* const wide = reinterpret_cast<const sockaddr*>(&ipv6);
    EXPECT_EQ(IpAddress(AddrInfo(wide, sizeof ipv6), {}).ToString(), "[fe80::1]:1");
    ipv6.sin6_scope_id = if_nametoindex("lo");
    EXPECT_EQ(AddrInfo(wide, sizeof ipv6).host(), "fe80::1%lo");

    // An address that is too short, null or of an unknown family gives an empty host and port 0.
    EXPECT_EQ(AddrInfo(wide, sizeof ipv6 - 1).host(), "");
    EXPECT_EQ(AddrInfo(plain, sizeof ipv4 - 1).port(), 0);
    ipv4.sin_family = AF_UNIX;
    EXPECT_EQ(AddrInfo(plain, sizeof ipv4).host(), "");
    EXPECT_EQ(AddrInfo(nullptr, 100).host(), "");
}

} // namespace
