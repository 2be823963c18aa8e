#pragma once

#include <map>
#include <mutex>
#include <string>
#include <thread>

/// A link of its own for a test: the calling thread, and every thread that it starts, is in a new network namespace
/// from now on, with the interface "eth0" (10.77.0.1/24). The other end is in a second one, where the test speaks as
/// any of the neighbours 10.77.0.2 to 10.77.0.9, and as 192.168.9.9, which is on no subnet of eth0. Needs root.
///
///     TestLan lan;
///     lan.AddDevice("10.77.0.2", TestLan::Answer(target, usn, location)); // answers each M-SEARCH from now on
///     lan.Multicast("10.77.0.3", TestLan::Notify("ssdp:alive", target, usn, location));
class TestLan final
{
public:
    TestLan();
    ~TestLan();
    TestLan(const TestLan&) = delete;
    TestLan& operator=(const TestLan&) = delete;

    void AddDevice(const std::string& address, const std::string& answer);
    void Multicast(const std::string& from, const std::string& datagram) const;
    /// Runs `ip` with these arguments on the unit's side.
    static void Ip(const std::string& arguments);

    /// An empty `location` leaves that header out. `headers` are further lines.
    static std::string Answer(const std::string& target, const std::string& usn, const std::string& location);
    static std::string Notify(const std::string& nts, const std::string& target, const std::string& usn,
                              const std::string& location,
                              const std::string& headers = "CACHE-CONTROL: max-age=1800\r\n");

private:
    int NeighbourSocket(const std::string& address) const;
    void AnswerSearches();

    int m_unit = -1; ///< the namespaces
    int m_neighbours = -1;
    int m_searches = -1; ///< hears M-SEARCHes
    mutable std::mutex m_mutex;
    std::multimap<std::string, std::string> m_devices; ///< address -> answer
    std::thread m_responder;
};
