#include "tools/portico-gateway/PeerAddresses.h"

#include "runtime/Task.h"
#include "runtime/TaskCheck.h"
#include "tools/portico-gateway/ProductTable.h"
#include "tools/portico-gateway/Router.h"

#include <map>
#include <optional>
#include <utility>

namespace Gateway
{
namespace
{

const std::string kTablePath = "/sonarix/products";

} // namespace

PeerAddresses::PeerAddresses(NotifyTargetTaskIF* task, Router& router, const std::string& peersFile, std::uint16_t port,
                             std::unique_ptr<MdnsLookupIF> mdns)
    : m_task(task)
    , m_router(router)
    , m_file(peersFile)
    , m_port(port)
    , m_mdns(std::move(mdns))
    , m_limit("PorticoGatewayTable", task)
{
}

PeerAddresses::~PeerAddresses() = default;

void PeerAddresses::QueryTable(const std::string& guid, PeersCallback callback)
{
    TASK_CHECK(m_task);
    if (const std::optional<Peer> given = m_file.Find(guid))
    {
        IL::BreakThread([callback = std::move(callback), peer = *given] { callback({peer}); }, m_task);
        return;
    }
    const bool isAsked = !m_waiting.empty();
    m_waiting.push_back({guid, std::move(callback), isAsked});
    if (!isAsked)
    {
        SendQuery();
    }
}

void PeerAddresses::SendQuery()
{
    const unsigned int query = ++m_query;
    m_limit.PostIn(static_cast<unsigned int>(kTableLimit.count()), [this, query] { HandleTable(query, {}); });
    const JsonRpc::AnswerCallback handle =
        m_liveness.Guard([this, query](const JsonRpc::Answer& answer) { HandleTable(query, answer.result); });
    m_liveness.OnTask<>(m_task,
                        [this, handle] {
                            m_router.Send({"get", kTablePath, "1.0", std::nullopt}, Origin::LOCAL, handle);
                        })();
}

void PeerAddresses::HandleTable(unsigned int query, const std::string& productList)
{
    TASK_CHECK(m_task);
    if (query != m_query)
    {
        return;
    }
    ++m_query;
    m_limit.Cancel();
    const std::map<std::string, std::string> addresses = AddressesFromProductList(productList);
    std::vector<Waiting> waiting;
    for (Waiting& each : std::exchange(m_waiting, {}))
    {
        if (each.isLate && addresses.count(each.guid) == 0)
        {
            m_waiting.push_back({each.guid, std::move(each.callback), false});
        }
        else
        {
            waiting.push_back(std::move(each));
        }
    }
    if (!m_waiting.empty())
    {
        SendQuery();
    }
    for (const Waiting& each : waiting)
    {
        const auto found = addresses.find(each.guid);
        each.callback(found != addresses.end() ? std::vector<Peer>{Peer{found->second, m_port, false}}
                                               : std::vector<Peer>());
    }
}

void PeerAddresses::QueryMdns(const std::string& guid, PeersCallback callback)
{
    TASK_CHECK(m_task);
    m_mdns->Find(guid,
                 [callback = std::move(callback), port = m_port](const std::vector<std::string>& addresses)
                 {
                     std::vector<Peer> peers;
                     for (const std::string& address : addresses)
                     {
                         peers.push_back({address, port, false});
                     }
                     callback(peers);
                 });
}

} // namespace Gateway
