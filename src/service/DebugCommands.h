#pragma once

#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

class NotifyTargetTaskIF;

namespace Sonarix
{
class Product;
class ProductList;
} // namespace Sonarix

namespace SonarixService
{

class DiscoveryServiceIPCServerIF;
class DiscoveryServicePorticoClientIF;
class MdnsDiscoveryProtocolIF;
class SsdpDiscoveryProtocolIF;

/// What the debug commands do: lists of what discovery has found, its start and stop by hand, and two lists of made-up
/// products that are announced to the rest of the product as if they had been found.
/// Task: everything is on the controller's, which `mdns list` holds up for as long as it waits.
/// Owner: the controller, in a shared pointer. An answer of mDNS that comes after its end does nothing.
/// Never asks whether discovery really runs: it goes by what was told here, and begins with both running, whatever the
/// network does.
class DebugCommands final : public std::enable_shared_from_this<DebugCommands>
{
public:
    /// What the commands work on. All but the gateway client may be empty.
    struct Surroundings
    {
        NotifyTargetTaskIF* task = nullptr;
        std::shared_ptr<SsdpDiscoveryProtocolIF> ssdp;
        std::shared_ptr<MdnsDiscoveryProtocolIF> mdns;
        std::shared_ptr<DiscoveryServicePorticoClientIF> gateway;
        std::shared_ptr<DiscoveryServiceIPCServerIF> ipc;
        std::function<std::string()> primaryInterface;
    };

    explicit DebugCommands(Surroundings surroundings);
    ~DebugCommands();
    DebugCommands(const DebugCommands&) = delete;
    DebugCommands& operator=(const DebugCommands&) = delete;

    /// The text for the person, which may be empty. What is wrong with the arguments is left out, with one line of
    /// level 2.
    std::string HandleCliCmd(int cmdKey, const std::list<std::string>& arguments);

    /// How long `mdns list` waits for the products of each type.
    static constexpr unsigned kListWaitMs = 1000;

private:
    struct MdnsAnswers;
    struct TestingList;
    using Arguments = std::list<std::string>;

    std::string HandleSsdp(int cmdKey, const Arguments& arguments);
    std::string HandleMdns(int cmdKey, const Arguments& arguments);
    std::string ListSsdp() const;
    std::string StartSsdp();
    std::string StopSsdp();
    std::string ClearSsdp();
    std::string ListMdns(const Arguments& arguments) const;
    void AskMdns(const std::string& serviceType, const std::shared_ptr<MdnsAnswers>& answers) const;
    std::string StartMdns();
    std::string StopMdns();
    std::string ClearMdns(const Arguments& arguments);
    void AddService(const Arguments& arguments);
    void RemoveService(const Arguments& arguments);
    std::string AddDevice(TestingList& list, const Arguments& arguments);
    std::string RemoveDevice(TestingList& list, const Arguments& arguments);

    bool CanUseSsdp() const;
    bool CanUseMdns() const;
    void AnnounceOffline(Sonarix::Product product);
    void Announce(const Sonarix::Product& product);
    void Flush(TestingList& list);
    template <class Record>
    bool Read(const Arguments& arguments, Record& record) const;
    void CheckArguments(int cmdKey, const Arguments& arguments);
    void Skip(const std::vector<std::string>& arguments) const;

    const Surroundings m_with;
    const std::unique_ptr<TestingList> m_ssdp;
    const std::unique_ptr<TestingList> m_mdns;
    std::string m_command; ///< of the one that runs, for log lines
};

} // namespace SonarixService
