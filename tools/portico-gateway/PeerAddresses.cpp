#include "tools/portico-gateway/PeerAddresses.h"

#include "runtime/Task.h"
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

void PeerAddresses::AskTable(const std::string& guid, PeersCallback callback)
{
    if (const std::optional<Peer> given = m_file.Find(guid))
    {
        IL::BreakThread([callback = std::move(callback), peer = *given] { callback({peer}); }, m_task);
        return;
    }
    const bool isAsked = !m_waiting.empty();
    m_waiting.push_back({guid, std::move(callback), isAsked});
    if (!isAsked)
    {
        Ask();
    }
}

void PeerAddresses::Ask()
{
    const unsigned int question = ++m_question;
    m_limit.PostIn(static_cast<unsigned int>(kTableLimit.count()), [this, question] { HandleTable(question, {}); });
    const auto handle = [this, question](const Answer& answer) { HandleTable(question, answer.result); };
    IL::BreakThread(
        [this, handle, alive = std::weak_ptr(m_alive)]
        {
            if (alive.lock())
            {
                m_router.Send({"get", kTablePath, "1.0", std::nullopt}, Origin::LOCAL,
                              [handle, alive](const Answer& answer)
                              {
                                  if (alive.lock())
                                  {
                                      handle(answer);
                                  }
                              });
            }
        },
        m_task);
}

void PeerAddresses::HandleTable(unsigned int question, const std::string& productList)
{
    if (question != m_question)
    {
        return;
    }
    ++m_question;
    m_limit.Cancel();
    const std::map<std::string, std::string> addresses = ReadAddresses(productList);
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
        Ask();
    }
    for (const Waiting& each : waiting)
    {
        const auto found = addresses.find(each.guid);
        each.callback(found != addresses.end() ? std::vector<Peer>{Peer{found->second, m_port, false}}
                                               : std::vector<Peer>());
    }
}

void PeerAddresses::AskMdns(const std::string& guid, PeersCallback callback)
{
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
