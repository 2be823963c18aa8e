#pragma once

#include <cstddef>
#include <string>
#include <sys/types.h>

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
    static bool Enter();

    /// Configures the loopback interface and starts D-Bus, but not the mDNS daemon.
    AvahiHost();
    ~AvahiHost();
    AvahiHost(const AvahiHost&) = delete;
    AvahiHost& operator=(const AvahiHost&) = delete;

    /// `objectsPerClient`: maximum number of browsers, resolvers and groups of one client.
    void StartDaemon(std::size_t objectsPerClient = 1024);
    void KillDaemon(); ///< with SIGKILL
    void KillBus();

    /// Multicasts a conflicting SRV record for this instance of "_kova-test._udp", as another host would.
    void ClaimInstance(const std::string& name);
    /// Multicasts a PTR record of this instance of "_kova-test._udp", as another host would.
    void AnnounceInstance(const std::string& name);
    /// Waits up to 1 minute for a query of the daemon for a type with this first label. Returns false after that.
    bool WaitForQuery(const std::string& label);

private:
    void Multicast(const std::string& packet);

    pid_t m_bus = -1;
    pid_t m_daemon = -1;
};
