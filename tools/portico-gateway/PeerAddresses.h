#pragma once

#include "jsonrpc/Frame.h"
#include "runtime/Liveness.h"
#include "runtime/Timers.h"
#include "tools/portico-gateway/MdnsLookup.h"
#include "tools/portico-gateway/Peer.h"
#include "tools/portico-gateway/PeersFile.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class NotifyTargetTaskIF;

namespace Gateway
{

class Router;

/// Finds the addresses of other products: in the peers file, else in this product's product table; and, on request,
/// by mDNS. One GET of the table serves all queries that wait for it.
/// Task: everything on the gateway's task. Answers come on it, never from inside the call. Owner: the gateway.
class PeerAddresses final
{
public:
    using PeersCallback = std::function<void(const std::vector<Peer>& peers)>; ///< may be empty

    /// `port` is the port of addresses from the table and from mDNS.
    PeerAddresses(NotifyTargetTaskIF* task, Router& router, const std::string& peersFile, std::uint16_t port,
                  std::unique_ptr<MdnsLookupIF> mdns);
    ~PeerAddresses();
    PeerAddresses(const PeerAddresses&) = delete;
    PeerAddresses& operator=(const PeerAddresses&) = delete;

    void QueryTable(const std::string& guid, PeersCallback callback);
    void QueryMdns(const std::string& guid, PeersCallback callback);

    /// Time limit of the GET. This product's service answers from memory.
    static constexpr std::chrono::milliseconds kTableLimit{2000};

private:
    struct Waiting
    {
        std::string guid;
        PeersCallback callback;
        bool isLate; ///< came after the GET was sent: the answer may lack its row
    };

    void SendQuery();
    void HandleTable(unsigned int query, const std::string& productList);

    NotifyTargetTaskIF* m_task;
    Router& m_router;
    PeersFile m_file;
    const std::uint16_t m_port;
    const std::unique_ptr<MdnsLookupIF> m_mdns;
    std::vector<Waiting> m_waiting;
    unsigned int m_query = 0; ///< number of the GET; a late answer is ignored
    MessageTimer m_limit;
    Liveness m_liveness;
};

} // namespace Gateway
