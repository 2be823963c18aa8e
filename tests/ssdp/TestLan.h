#pragma once

#include <map>
#include <mutex>
#include <string>
#include <thread>

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
    TestLan();
    ~TestLan();
    TestLan(const TestLan&) = delete;
    TestLan& operator=(const TestLan&) = delete;

    void AddDevice(const std::string& address, const std::string& answer);
    void Multicast(const std::string& from, const std::string& datagram) const;
    /// Runs the command `ip` in the namespace of eth0.
    static void Ip(const std::string& arguments);

    /// An empty `location` omits that header. `headers` are further lines.
    static std::string Answer(const std::string& target, const std::string& usn, const std::string& location);
    static std::string Notify(const std::string& nts, const std::string& target, const std::string& usn,
                              const std::string& location,
                              const std::string& headers = "CACHE-CONTROL: max-age=1800\r\n");

private:
    int NeighbourSocket(const std::string& address) const;
    void AnswerSearches();

    int m_unit = -1;       ///< namespace of eth0
    int m_neighbours = -1; ///< namespace of the hosts
    int m_searches = -1;   ///< socket that receives M-SEARCHes
    mutable std::mutex m_mutex;
    std::multimap<std::string, std::string> m_devices; ///< response by address
    std::thread m_responder;
};
