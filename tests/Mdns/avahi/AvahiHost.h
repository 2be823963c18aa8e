#pragma once

#include <cstddef>
#include <string>
#include <sys/types.h>

/// A host of its own for a test of the Avahi backend: network, mount and process namespaces with a private /run, a
/// message bus and an mDNS daemon. Needs the right to make namespaces.
///
///     TEST(AvahiImplTest, Something)
///     {
///         if (!AvahiHost::Enter()) // runs this very test again, inside
///             return;
///         AvahiHost host;
///         host.StartDaemon();
///         ...
///     }
///
/// Whatever runs inside ends with the test's process, however that ends.
class AvahiHost final
{
public:
    /// True inside. Outside it runs the current test in a new namespace, fails where that fails, and gives false.
    static bool Enter();

    /// With an address on the loopback interface and the bus running; not yet the mDNS daemon.
    AvahiHost();
    ~AvahiHost();
    AvahiHost(const AvahiHost&) = delete;
    AvahiHost& operator=(const AvahiHost&) = delete;

    /// `objectsPerClient`: the browsers, resolvers and groups that the daemon allows a client at once.
    void StartDaemon(std::size_t objectsPerClient = 1024);
    void KillDaemon(); ///< by signal 9
    void KillBus();

    /// Multicasts, as another host would, that this instance of "_kova-test._udp" is served elsewhere.
    void ClaimInstance(const std::string& name);
    /// Multicasts, as another host would, that there is this instance of "_kova-test._udp".
    void AnnounceInstance(const std::string& name);
    /// Until the daemon asks who serves a type with this first label, for a minute at most.
    bool WaitForQuestion(const std::string& label);

private:
    void Multicast(const std::string& packet);

    pid_t m_bus = -1;
    pid_t m_daemon = -1;
};
