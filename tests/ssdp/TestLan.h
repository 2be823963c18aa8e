#pragma once

#include <arpa/inet.h>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <netinet/in.h>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

/// A private network for a test. The constructor moves the calling thread, and so every thread that it starts later, to
/// a new network namespace with the interface "eth0" (10.77.0.1/24). The other end is in a second namespace, where the
/// test sends as the hosts 10.77.0.2 to 10.77.0.9, and as 192.168.9.9, which is in no subnet of eth0. Needs root.
///
///     TestLan lan;
///     lan.AddDevice("10.77.0.2", TestLan::Answer(target, usn, location)); // sent after each M-SEARCH
///     lan.Multicast("10.77.0.3", TestLan::Notify("ssdp:alive", target, usn, location));
class TestLan final
{
public:
    TestLan()
        : m_unit(NewNamespace())
        , m_neighbours(NewNamespace())
    {
        Ip("link add lan0 type veth peer name eth0 netns /proc/" + std::to_string(getpid()) + "/fd/" +
           std::to_string(m_unit));
        for (int host = 2; host < 10; ++host)
        {
            Ip("address add 10.77.0." + std::to_string(host) + "/24 dev lan0");
        }
        Ip("address add 192.168.9.9/24 dev lan0");
        Ip("link set lan0 up");
        Check(setns(m_unit, CLONE_NEWNET) == 0, "setns");
        Ip("link set lo up");
        Ip("address add 10.77.0.1/24 dev eth0");
        Ip("link set eth0 up");

        m_searches = NeighbourSocket(kGroup);
        m_responder = std::thread(&TestLan::AnswerSearches, this);
    }
    ~TestLan()
    {
        shutdown(m_searches, SHUT_RDWR); // ends the recvfrom
        m_responder.join();
        close(m_searches);
        close(m_neighbours);
        close(m_unit);
    }
    TestLan(const TestLan&) = delete;
    TestLan& operator=(const TestLan&) = delete;

    void AddDevice(const std::string& address, const std::string& answer)
    {
        const std::lock_guard lock(m_mutex);
        m_devices.emplace(address, answer);
    }
    void Multicast(const std::string& from, const std::string& datagram) const
    {
        Send(NeighbourSocket(from), datagram, At(kGroup, kPort));
    }
    /// Runs the command `ip` in the namespace of eth0.
    static void Ip(const std::string& arguments)
    {
        Check(std::system(("ip " + arguments).c_str()) == 0, "ip " + arguments);
    }

    /// An empty `location` omits that header. `headers` are further lines.
    static std::string Answer(const std::string& target, const std::string& usn, const std::string& location)
    {
        return "HTTP/1.1 200 OK\r\nCACHE-CONTROL: max-age=1800\r\nEXT:\r\n" + Location(location) +
               "SERVER: Linux/5 UPnP/1.0 Test/1\r\nST: " + target + "\r\nUSN: " + usn + "\r\n\r\n";
    }
    static std::string Notify(const std::string& nts, const std::string& target, const std::string& usn,
                              const std::string& location,
                              const std::string& headers = "CACHE-CONTROL: max-age=1800\r\n")
    {
        return "NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\n" + headers + Location(location) + "NT: " + target +
               "\r\nNTS: " + nts + "\r\nUSN: " + usn + "\r\n\r\n";
    }

private:
    static constexpr const char* kGroup = "239.255.255.250";
    static constexpr std::uint16_t kPort = 1900;

    static void Check(bool isDone, const std::string& what)
    {
        if (!isDone)
        {
            throw std::runtime_error("TestLan: " + what + "; without the right to make namespaces: run it as root");
        }
    }

    static int NewNamespace()
    {
        Check(unshare(CLONE_NEWNET) == 0, "no network namespace");
        return open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    }

    static sockaddr_in At(const std::string& address, std::uint16_t port)
    {
        sockaddr_in result{};
        result.sin_family = AF_INET;
        result.sin_port = htons(port);
        result.sin_addr.s_addr = inet_addr(address.c_str());
        return result;
    }

    static void Send(int fd, const std::string& datagram, const sockaddr_in& to)
    {
        const ssize_t sent =
            sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
        close(fd);
        Check(sent == static_cast<ssize_t>(datagram.size()), "sendto");
    }

    static std::string Location(const std::string& location)
    {
        return location.empty() ? "" : "LOCATION: " + location + "\r\n";
    }
    int NeighbourSocket(const std::string& address) const
    {
        Check(setns(m_neighbours, CLONE_NEWNET) == 0, "setns");
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        Check(setns(m_unit, CLONE_NEWNET) == 0, "setns");
        const int on = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        const sockaddr_in own = At(address, kPort);
        Check(bind(fd, reinterpret_cast<const sockaddr*>(&own), sizeof own) == 0, "bind " + address);
        if (address == kGroup)
        {
            const ip_mreq membership{own.sin_addr, At("10.77.0.2", 0).sin_addr};
            Check(setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) == 0, "membership");
        }
        else
        {
            setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &own.sin_addr, sizeof own.sin_addr);
        }
        return fd;
    }
    void AnswerSearches()
    {
        std::array<char, 2048> buffer{};
        sockaddr_in asker{};
        socklen_t length = sizeof asker;
        while (true)
        {
            const ssize_t size =
                recvfrom(m_searches, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&asker), &length);
            if (size <= 0)
            {
                return;
            }
            if (std::string(buffer.data(), static_cast<std::size_t>(size)).starts_with("M-SEARCH "))
            {
                const std::lock_guard lock(m_mutex);
                for (const auto& [address, answer] : m_devices)
                {
                    Send(NeighbourSocket(address), answer, asker);
                }
            }
        }
    }

    int m_unit = -1;       ///< namespace of eth0
    int m_neighbours = -1; ///< namespace of the hosts
    int m_searches = -1;   ///< socket that receives M-SEARCHes
    mutable std::mutex m_mutex;
    std::multimap<std::string, std::string> m_devices; ///< response by address
    std::thread m_responder;
};
