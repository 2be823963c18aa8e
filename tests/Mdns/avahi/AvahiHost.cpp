#include "tests/Mdns/avahi/AvahiHost.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <stdexcept>
#include <string_view>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

const char* const kInside = "SONARIX_TEST_AVAHI_HOST";

int WaitFor(pid_t pid)
{
    int status = -1;
    waitpid(pid, &status, 0);
    return status;
}

void Check(bool isDone, const std::string& what)
{
    if (!isDone)
    {
        throw std::runtime_error(what);
    }
}

pid_t Spawn(const std::string& command)
{
    const pid_t pid = fork();
    if (pid == 0)
    {
        execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        _exit(127);
    }
    return pid;
}

void Kill(pid_t& pid)
{
    if (pid > 0)
    {
        kill(pid, SIGKILL);
        WaitFor(pid);
        pid = -1;
    }
}

/// A socket on the mDNS port, which the daemon also uses.
int BoundSocket()
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in address{AF_INET, htons(5353), {}, {}};
    Check(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "port 5353");
    return fd;
}

} // namespace

bool AvahiHost::Enter()
{
    if (std::getenv(kInside) != nullptr)
    {
        return true;
    }
    const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
    const pid_t inside = Spawn(std::string(kInside) + "=1 exec unshare -n -m -u -p --fork --kill-child '" +
                               std::filesystem::read_symlink("/proc/self/exe").string() + "' --gtest_brief=1 " +
                               "--gtest_filter=" + test.test_suite_name() + "." + test.name());
    EXPECT_EQ(WaitFor(inside), 0) << "failed inside, see above; without the right to make namespaces: run it as root";
    return false;
}

AvahiHost::AvahiHost()
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

AvahiHost::~AvahiHost()
{
    KillDaemon();
    KillBus();
}

void AvahiHost::StartDaemon(std::size_t objectsPerClient)
{
    std::filesystem::remove_all("/run/avahi-daemon"); // left by a killed daemon
    std::ofstream("/run/avahi.conf") << "[server]\nhost-name=lab\nuse-ipv6=no\nallow-interfaces=lo\n"
                                     << "objects-per-client-max=" << objectsPerClient
                                     << "\n[publish]\npublish-hinfo=no\npublish-workstation=no\n";
    m_daemon = Spawn("exec avahi-daemon --no-chroot --no-rlimits -f /run/avahi.conf");
}

void AvahiHost::KillDaemon()
{
    Kill(m_daemon);
}

void AvahiHost::KillBus()
{
    Kill(m_bus);
}

void AvahiHost::ClaimInstance(const std::string& name)
{
    // One SRV record with the cache-flush bit: priority 0, weight 0, port 1, "other.local".
    std::string packet("\0\0\x84\0\0\0\0\1\0\0\0\0", 12);
    packet += static_cast<char>(name.size());
    packet += name + "\x0A_kova-test\4_udp\5local";
    packet.append("\0\0\x21\x80\1\0\0\0\x78\0\x13\0\0\0\0\0\1\5other\5local\0", 30);
    Multicast(packet);
}

void AvahiHost::AnnounceInstance(const std::string& name)
{
    // One PTR record. Its target ends with a compression pointer to the record's own name.
    std::string packet("\0\0\x84\0\0\0\0\1\0\0\0\0\x0A_kova-test\4_udp\5local\0\0\x0C\0\1\0\0\0\x78\0", 44);
    packet += static_cast<char>(name.size() + 3);
    packet += static_cast<char>(name.size());
    packet += name + "\xC0\x0C";
    Multicast(packet);
}

bool AvahiHost::WaitForQuery(const std::string& label)
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

void AvahiHost::Multicast(const std::string& packet)
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
