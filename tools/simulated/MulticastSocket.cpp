#include "tools/simulated/MulticastSocket.h"

#include "runtime/TaskIo.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/udp.hpp>

#include <array>
#include <cerrno>
#include <cstring>
#include <linux/filter.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <utility>

namespace
{

constexpr std::size_t kMaxDatagramBytes = 9000;
constexpr int kBufferBytes = 4 << 20; // holds bursts: queries of many clients, responses of many products
constexpr int kDatagramsAtOnce = 64;  // then other entries of the task run

sockaddr_in SocketAddress(const Endpoint& endpoint)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(endpoint.port);
    address.sin_addr.s_addr = htonl(endpoint.address);
    return address;
}

std::string Text(const Endpoint& endpoint)
{
    return boost::asio::ip::make_address_v4(endpoint.address).to_string() + ":" + std::to_string(endpoint.port);
}

template <class Value>
bool Set(int descriptor, int level, int option, const Value& value)
{
    return setsockopt(descriptor, level, option, &value, sizeof value) == 0;
}

bool Attach(int descriptor, const MulticastSocket::Filter& filter)
{
    constexpr unsigned int kUdpHeaderBytes = 8;
    std::array<sock_filter, 5> code{{
        BPF_STMT(BPF_LD | BPF_B | BPF_ABS, kUdpHeaderBytes + filter.offset),
        BPF_STMT(BPF_ALU | BPF_AND | BPF_K, filter.mask),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, filter.value, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, 0),
        BPF_STMT(BPF_RET | BPF_K, 0xFFFF),
    }};
    const sock_fprog program{code.size(), code.data()};
    return Set(descriptor, SOL_SOCKET, SO_ATTACH_FILTER, program);
}

/// SO_RCVBUFFORCE exceeds net.core.rmem_max and needs CAP_NET_ADMIN; without it the plain option applies.
void EnlargeBuffers(int descriptor)
{
    if (!Set(descriptor, SOL_SOCKET, SO_RCVBUFFORCE, kBufferBytes))
    {
        Set(descriptor, SOL_SOCKET, SO_RCVBUF, kBufferBytes);
    }
    if (!Set(descriptor, SOL_SOCKET, SO_SNDBUFFORCE, kBufferBytes))
    {
        Set(descriptor, SOL_SOCKET, SO_SNDBUF, kBufferBytes);
    }
}

} // namespace

struct MulticastSocket::Impl
{
    Impl(boost::asio::io_context& io, const Settings& settings, Received received)
        : m_settings(settings)
        , m_socket(io)
        , m_received(std::move(received))
    {
    }

    void Wait()
    {
        m_socket.async_wait(boost::asio::ip::udp::socket::wait_read,
                            [this](const boost::system::error_code& error)
                            {
                                if (error != boost::asio::error::operation_aborted)
                                {
                                    Drain();
                                    Wait();
                                }
                            });
    }

    void Drain()
    {
        for (int count = 0; count < kDatagramsAtOnce; ++count)
        {
            sockaddr_in sender{};
            socklen_t length = sizeof sender;
            const ssize_t size = recvfrom(m_socket.native_handle(), m_buffer.data(), m_buffer.size(), MSG_DONTWAIT,
                                          reinterpret_cast<sockaddr*>(&sender), &length);
            if (size < 0)
            {
                return;
            }
            m_received(m_buffer.data(), static_cast<std::size_t>(size),
                       {ntohl(sender.sin_addr.s_addr), ntohs(sender.sin_port)});
        }
    }

    const Settings m_settings;
    boost::asio::ip::udp::socket m_socket;
    const Received m_received;
    unsigned m_interface = 0;
    std::array<std::uint8_t, kMaxDatagramBytes> m_buffer{};
};

MulticastSocket::MulticastSocket(NotifyTargetTaskIF* task, const Settings& settings, Received received)
    : m_impl(std::make_unique<Impl>(IL::IoContextOf(task), settings, std::move(received)))
{
}

MulticastSocket::~MulticastSocket() = default;

bool MulticastSocket::Open(const std::string& interface, std::string& error)
{
    m_impl->m_interface = if_nametoindex(interface.c_str());
    if (m_impl->m_interface == 0)
    {
        error = "no interface " + interface;
        return false;
    }
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor < 0)
    {
        error = std::strerror(errno);
        return false;
    }
    m_impl->m_socket.assign(boost::asio::ip::udp::v4(), descriptor);
    EnlargeBuffers(descriptor);
    ip_mreqn membership{};
    membership.imr_multiaddr.s_addr = htonl(m_impl->m_settings.group.address);
    membership.imr_ifindex = static_cast<int>(m_impl->m_interface);
    const sockaddr_in group = SocketAddress(m_impl->m_settings.group);
    const bool isDone = Set(descriptor, SOL_SOCKET, SO_REUSEADDR, 1) && Set(descriptor, SOL_SOCKET, SO_REUSEPORT, 1) &&
                        Set(descriptor, IPPROTO_IP, IP_MULTICAST_ALL, 0) &&
                        Set(descriptor, IPPROTO_IP, IP_MULTICAST_TTL, m_impl->m_settings.ttl) &&
                        Attach(descriptor, m_impl->m_settings.filter) &&
                        Set(descriptor, IPPROTO_IP, IP_ADD_MEMBERSHIP, membership) &&
                        bind(descriptor, reinterpret_cast<const sockaddr*>(&group), sizeof group) == 0;
    if (!isDone)
    {
        error = Text(m_impl->m_settings.group) + " on " + interface + ": " + std::strerror(errno);
        return false;
    }
    m_impl->Wait();
    return true;
}

bool MulticastSocket::Send(const std::vector<std::uint8_t>& bytes, std::uint32_t source)
{
    return SendTo(m_impl->m_settings.group, bytes, source);
}

bool MulticastSocket::SendTo(const Endpoint& receiver, const std::vector<std::uint8_t>& bytes, std::uint32_t source)
{
    sockaddr_in address = SocketAddress(receiver);
    iovec data{const_cast<std::uint8_t*>(bytes.data()), bytes.size()};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(in_pktinfo))> control{};
    msghdr message{};
    message.msg_name = &address;
    message.msg_namelen = sizeof address;
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = IPPROTO_IP;
    header->cmsg_type = IP_PKTINFO;
    header->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
    in_pktinfo info{};
    if (receiver == m_impl->m_settings.group) // unicast follows the routes, which also lead to local addresses
    {
        info.ipi_ifindex = static_cast<int>(m_impl->m_interface);
    }
    info.ipi_spec_dst.s_addr = htonl(source);
    std::memcpy(CMSG_DATA(header), &info, sizeof info);
    const bool isSent = sendmsg(m_impl->m_socket.native_handle(), &message, MSG_DONTWAIT) >= 0;
    return isSent || (errno != EAGAIN && errno != ENOBUFS); // other errors: treated as a lost datagram
}
