#include "AvahiHost.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <sched.h>
#include <spawn.h>
#include <stdexcept>
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

void AppendLabels(std::string& packet, const std::string& name)
{
    for (std::size_t at = 0; at < name.size();)
    {
        const std::size_t end = std::min(name.find('.', at), name.size());
        packet += static_cast<char>(end - at);
        packet.append(name, at, end - at);
        at = end + 1;
    }
}

} // namespace

bool AvahiHost::Enter()
{
    if (std::getenv(kInside) != nullptr)
    {
        return true;
    }
    const pid_t probe = Spawn({"unshare", "-n", "-m", "-u", "-p", "--fork", "true"});
    if (WaitFor(probe) != 0)
    {
        ADD_FAILURE() << "this test needs the right to make namespaces: run it as root";
        return false;
    }
    const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
    setenv(kInside, "1", 1);
    const pid_t inside =
        Spawn({"unshare", "-n", "-m", "-u", "-p", "--fork", "--kill-child",
               std::filesystem::read_symlink("/proc/self/exe").string(),
               std::string("--gtest_filter=") + test.test_suite_name() + "." + test.name(), "--gtest_brief=1"});
    unsetenv(kInside);
    EXPECT_EQ(WaitFor(inside), 0) << "failed inside, see above";
    return false;
}

AvahiHost::AvahiHost()
{
    Check(mount("none", "/run", "tmpfs", 0, "mode=0755") == 0, "no /run of our own");
    std::filesystem::create_directories("/run/dbus");
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"ip", "link", "set", "lo", "multicast", "on", "up"},
          {"ip", "route", "add", "224.0.0.0/4", "dev", "lo"}})
    {
        Check(WaitFor(Spawn(command)) == 0, command[1] + " failed");
    }

    // The bus tells its address when it is ready.
    std::array<int, 2> ready{};
    Check(pipe(ready.data()) == 0, "pipe");
    m_bus = Spawn({"dbus-daemon", "--system", "--nofork", "--nopidfile", "--print-address=" + std::to_string(ready[1])},
                  ready[1]);
    close(ready[1]);
    char byte = 0;
    Check(read(ready[0], &byte, 1) == 1, "the bus has not started");
    close(ready[0]);
}

AvahiHost::~AvahiHost()
{
    Kill(m_daemon);
    Kill(m_bus);
}

void AvahiHost::StartDaemon()
{
    std::filesystem::remove_all("/run/avahi-daemon"); // what a killed one leaves behind
    std::ofstream("/run/avahi.conf") << "[server]\nhost-name=lab\nuse-ipv6=no\nallow-interfaces=lo\n"
                                        "[publish]\npublish-hinfo=no\npublish-workstation=no\n";
    m_daemon = Spawn({"avahi-daemon", "--no-chroot", "--no-rlimits", "-f", "/run/avahi.conf"});
}

void AvahiHost::KillDaemon()
{
    Kill(m_daemon);
}

void AvahiHost::KillBus()
{
    Kill(m_bus);
}

void AvahiHost::ClaimInstance(const std::string& name, const std::string& type)
{
    // One SRV record with the cache-flush bit: priority 0, weight 0, port 1, "other.local".
    std::string packet("\0\0\x84\0\0\0\0\1\0\0\0\0", 12);
    packet += static_cast<char>(name.size());
    packet += name;
    AppendLabels(packet, type + ".local");
    packet.append("\0\0\x21\x80\1\0\0\0\x78\0\x13\0\0\0\0\0\1\5other\5local\0", 30);

    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    const int on = 1;
    const int ttl = 255;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
    setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl);
    const in_addr from{inet_addr("127.0.0.1")}; // or the packet has no source address, and is ignored
    setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &from, sizeof from);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(5353);
    Check(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "port 5353");
    address.sin_addr.s_addr = inet_addr("224.0.0.251");
    const ssize_t sent =
        sendto(fd, packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    close(fd);
    Check(sent == static_cast<ssize_t>(packet.size()), "multicast");
}

pid_t AvahiHost::Spawn(const std::vector<std::string>& command, int inheritedFd)
{
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& argument : command)
    {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (inheritedFd < 0)
    {
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    }
    pid_t pid = -1;
    const int error = posix_spawnp(&pid, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    Check(error == 0, command[0] + " can't be run");
    return pid;
}

void AvahiHost::Kill(pid_t& pid)
{
    if (pid > 0)
    {
        kill(pid, SIGKILL);
        WaitFor(pid);
        pid = -1;
    }
}
