#pragma once

#include <arpa/inet.h>
#include <array>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

/// A host for tests of the Avahi backend: network, mount and process namespaces with a private /run, D-Bus and an mDNS
/// daemon. Needs permission to create namespaces.
///
///     TEST(AvahiImplTest, Something)
///     {
///         if (!AvahiHost::Enter()) // runs this test again in the namespaces
///             return;
///         AvahiHost host;
///         host.StartDaemon();
///         ...
///     }
///
/// All processes in the namespaces end with the process of the test.
class AvahiHost final
{
public:
    /// Returns true in the namespaces. Otherwise runs the current test there, fails if that fails, and returns false.
    static bool Enter()
    {
        if (std::getenv(kInside) != nullptr)
        {
            return true;
        }
        const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
        const pid_t inside = Spawn(std::string(kInside) + "=1 exec unshare -n -m -u -p --fork --kill-child '" +
                                   std::filesystem::read_symlink("/proc/self/exe").string() + "' --gtest_brief=1 " +
                                   "--gtest_filter=" + test.test_suite_name() + "." + test.name());
        EXPECT_EQ(WaitFor(inside), 0)
            << "failed inside, see above; without the right to make namespaces: run it as root";
        return false;
    }

    /// Configures the loopback interface and starts D-Bus, but not the mDNS daemon.
    AvahiHost()
    {
        Check(mount("none", "/run", "tmpfs", 0, "mode=0755") == 0, "mount of /run failed");
        std::filesystem::create_directories("/run/dbus");
        Check(WaitFor(Spawn("ip link set lo multicast on up && ip route add 224.0.0.0/4 dev lo")) == 0, "ip");

        // dbus-daemon writes its address to the pipe when it is ready.
        std::array<int, 2> ready{};
        Check(pipe(ready.data()) == 0, "pipe");
        m_bus = Spawn("exec dbus-daemon --system --nofork --nopidfile --print-address=" + std::to_string(ready[1]));
        close(ready[1]);
        char byte = 0;
        Check(read(ready[0], &byte, 1) == 1, "the bus has not started");
        close(ready[0]);
    }
    ~AvahiHost()
    {
        KillDaemon();
        KillBus();
    }
    AvahiHost(const AvahiHost&) = delete;
    AvahiHost& operator=(const AvahiHost&) = delete;

    /// `objectsPerClient`: maximum number of browsers, resolvers and groups of one client.
    void StartDaemon(std::size_t objectsPerClient = 1024)
    {
        std::filesystem::remove_all("/run/avahi-daemon"); // left by a killed daemon
        std::ofstream("/run/avahi.conf") << "[server]\nhost-name=lab\nuse-ipv6=no\nallow-interfaces=lo\n"
                                         << "objects-per-client-max=" << objectsPerClient
                                         << "\n[publish]\npublish-hinfo=no\npublish-workstation=no\n";
        m_daemon = Spawn("exec avahi-daemon --no-chroot --no-rlimits -f /run/avahi.conf");
    }
    /// Kills the daemon with SIGKILL.
    void KillDaemon()
    {
        Kill(m_daemon);
    }
    void KillBus()
    {
        Kill(m_bus);
    }

    /// Multicasts a conflicting SRV record for this instance of "_kova-test._udp", as another host would.
    void ClaimInstance(const std::string& name)
    {
        // One SRV record with the cache-flush bit: priority 0, weight 0, port 1, "other.local".
        std::string packet("\0\0\x84\0\0\0\0\1\0\0\0\0", 12);
        packet += static_cast<char>(name.size());
        packet += name + "\x0A_kova-test\4_udp\5local";
        packet.append("\0\0\x21\x80\1\0\0\0\x78\0\x13\0\0\0\0\0\1\5other\5local\0", 30);
        Multicast(packet);
    }
    /// Multicasts a PTR record of this instance of "_kova-test._udp", as another host would.
    void AnnounceInstance(const std::string& name)
    {
        // One PTR record. Its target ends with a compression pointer to the record's own name.
        std::string packet("\0\0\x84\0\0\0\0\1\0\0\0\0\x0A_kova-test\4_udp\5local\0\0\x0C\0\1\0\0\0\x78\0", 44);
        packet += static_cast<char>(name.size() + 3);
        packet += static_cast<char>(name.size());
        packet += name + "\xC0\x0C";
        Multicast(packet);
    }
    /// Waits up to 1 minute for a query of the daemon for a type with this first label. Returns false after that.
    bool WaitForQuery(const std::string& label)
    {
        const int fd = BoundSocket();
        const ip_mreq group{{inet_addr("224.0.0.251")}, {inet_addr("127.0.0.1")}};
        Check(setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group) == 0, "multicast group");
        const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
        const timeval patience{60, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        std::array<char, 9000> packet{};
        bool isQuery = false;
        while (!isQuery && std::chrono::steady_clock::now() < end)
        {
            const ssize_t size = recv(fd, packet.data(), packet.size(), 0);
            const std::string_view text(packet.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
            // A query whose first label follows the header: neither a response nor a probe.
            isQuery = text.size() > 12 && text[2] == 0 && text[9] == 0 &&
                      text.substr(12).starts_with(static_cast<char>(label.size()) + label);
        }
        close(fd);
        return isQuery;
    }

private:
    static constexpr const char* kInside = "SONARIX_TEST_AVAHI_HOST";

    static int WaitFor(pid_t pid)
    {
        int status = -1;
        waitpid(pid, &status, 0);
        return status;
    }

    static void Check(bool isDone, const std::string& what)
    {
        if (!isDone)
        {
            throw std::runtime_error(what);
        }
    }

    static pid_t Spawn(const std::string& command)
    {
        const pid_t pid = fork();
        if (pid == 0)
        {
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            _exit(127);
        }
        return pid;
    }

    static void Kill(pid_t& pid)
    {
        if (pid > 0)
        {
            kill(pid, SIGKILL);
            WaitFor(pid);
            pid = -1;
        }
    }

    /// A socket bound to the mDNS port, which it shares with avahi-daemon.
    static int BoundSocket()
    {
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const int on = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        const sockaddr_in address{AF_INET, htons(5353), {}, {}};
        Check(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "port 5353");
        return fd;
    }

    void Multicast(const std::string& packet)
    {
        const int fd = BoundSocket();
        const int ttl = 255;
        setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl);
        const in_addr from{inet_addr("127.0.0.1")}; // a packet without a source address is ignored
        setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &from, sizeof from);
        const sockaddr_in address{AF_INET, htons(5353), {inet_addr("224.0.0.251")}, {}};
        const ssize_t sent =
            sendto(fd, packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        close(fd);
        Check(sent == static_cast<ssize_t>(packet.size()), "multicast");
    }

    pid_t m_bus = -1;
    pid_t m_daemon = -1;
};
