#pragma once

#include "runtime/Timers.h"
#include "tools/portico-gateway/MdnsLookup.h"
#include "tools/portico-gateway/Peer.h"
#include "tools/portico-gateway/PeersFile.h"
#include "tools/portico-gateway/RpcFrame.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class NotifyTargetTaskIF;

namespace Gateway
{

class Router;

/// Where other products are: as the peers file has it, else as the product table of this product has it; and, to be
/// asked when that does not lead there, as mDNS has it. One GET of the table serves all that ask meanwhile.
/// Task: the gateway's; answers come on it, never from inside the call. Owner: the gateway.
class PeerAddresses final
{
public:
    using PeersCallback = std::function<void(const std::vector<Peer>& peers)>; ///< the likeliest first; may be empty

    /// `port`: of every address that is not written in the file.
    PeerAddresses(NotifyTargetTaskIF* task, Router& router, const std::string& peersFile, std::uint16_t port,
                  std::unique_ptr<MdnsLookupIF> mdns);
    ~PeerAddresses();
    PeerAddresses(const PeerAddresses&) = delete;
    PeerAddresses& operator=(const PeerAddresses&) = delete;

    void AskTable(const std::string& guid, PeersCallback callback);
    void AskMdns(const std::string& guid, PeersCallback callback);

    /// The own service answers from memory; one that does not is passed over.
    static constexpr std::chrono::milliseconds kTableLimit{2000};

private:
    struct Waiting
    {
        std::string guid;
        PeersCallback callback;
        bool isLate; ///< came when the list had been asked for: its row may have come since, too
    };

    void Ask();
    void HandleTable(unsigned int question, const std::string& productList);

    NotifyTargetTaskIF* m_task;
    Router& m_router;
    PeersFile m_file;
    const std::uint16_t m_port;
    const std::unique_ptr<MdnsLookupIF> m_mdns;
    std::vector<Waiting> m_waiting;
    unsigned int m_question = 0; ///< counts, so that an answer after the limit finds nobody
    MessageTimer m_limit;
    const std::shared_ptr<bool> m_alive = std::make_shared<bool>(true); ///< seen weakly by what is on its way
};

} // namespace Gateway
