#pragma once

#include <cstddef>
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

/// Interpreter of the debug commands: lists what discovery has found, starts and stops each discovery protocol, and
/// keeps two lists of testing products, which are announced to the gateway and the local sockets like found ones.
/// Task: everything but the construction runs on the controller's task. `mdns list` blocks this task while it waits.
/// Owner: the controller, in a shared pointer. An answer of mDNS that arrives after destruction is ignored.
/// Never queries whether discovery really runs: only these commands change its two flags, which begin as running.
class DebugCommands final : public std::enable_shared_from_this<DebugCommands>
{
public:
    using Arguments = std::list<std::string>;

    /// The objects that the commands call. All but the gateway client may be null.
    struct Context
    {
        NotifyTargetTaskIF* task = nullptr;
        std::shared_ptr<SsdpDiscoveryProtocolIF> ssdp;
        std::shared_ptr<MdnsDiscoveryProtocolIF> mdns;
        std::shared_ptr<DiscoveryServicePorticoClientIF> gateway;
        std::shared_ptr<DiscoveryServiceIPCServerIF> ipc;
        std::function<std::string()> primaryInterface;
    };

    struct Command
    {
        int key;
        const char* words;
        const char* help;
        const char* usage;
        std::size_t minArguments; ///< with fewer, a warning is logged
        std::size_t maxArguments; ///< further ones are skipped, which is logged
        std::string (*handle)(DebugCommands& commands, const Arguments& arguments);
    };

    /// All commands, in the order of their registration.
    static const std::vector<Command>& Table();

    explicit DebugCommands(Context context);
    ~DebugCommands();
    DebugCommands(const DebugCommands&) = delete;
    DebugCommands& operator=(const DebugCommands&) = delete;

    /// Returns the response, which may be empty; "Command not found" for a key that is not in Table(). Invalid
    /// arguments are skipped, with one line of level 2.
    std::string HandleCliCmd(int cmdKey, const Arguments& arguments);

    /// Limit of the wait of `mdns list` for the products of each service type.
    static constexpr unsigned kListWaitMs = 1000;

private:
    struct MdnsAnswers;
    struct Protocol;

    std::string ListSsdp() const;
    std::string ClearSsdp();
    std::string ListMdns(const Arguments& arguments) const;
    void QueryMdns(const std::string& serviceType, const std::shared_ptr<MdnsAnswers>& answers) const;
    std::string ClearMdns(const Arguments& arguments);
    std::string AddService(const Arguments& arguments);
    std::string RemoveService(const Arguments& arguments);

    static std::string Start(Protocol& protocol);
    std::string Stop(Protocol& protocol);
    std::string AddDevice(Protocol& protocol, const Arguments& arguments);
    std::string RemoveDevice(Protocol& protocol, const Arguments& arguments);
    void AnnounceOffline(Sonarix::Product product);
    void Announce(const Sonarix::Product& product);
    void Flush(Protocol& protocol);
    void CheckArguments(const Arguments& arguments) const;
    bool HasValid(const Arguments& arguments, const std::vector<std::string>& skipped) const;
    void LogSkipped(const std::vector<std::string>& arguments) const;

    const Context m_context;
    const std::unique_ptr<Protocol> m_ssdp;
    const std::unique_ptr<Protocol> m_mdns;
    const Command* m_command = nullptr; ///< the command that runs
};

} // namespace SonarixService
