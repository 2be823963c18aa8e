#include "tools/portico-gateway/Router.h"

#include <algorithm>
#include <utility>

namespace Gateway
{

Router::Router(std::string ownGuid)
    : m_ownGuid(std::move(ownGuid))
{
}

void Router::SetServedCallback(std::function<void(const std::string&, const std::string&)> callback)
{
    m_onServed = std::move(callback);
}

JsonRpc::Answer Router::Serve(PathServerIF* server, const std::string& verb, const std::string& path, int scope)
{
    const auto found = m_paths.find(path);
    if (found != m_paths.end() && found->second.count(verb) != 0)
    {
        Endpoint& endpoint = found->second.at(verb);
        if (endpoint.server != server)
        {
            return JsonRpc::Answer::Error(JsonRpc::PATH_TAKEN, verb + " " + path + " is served by another client",
                                          m_ownGuid);
        }
        endpoint.scope = scope;
        return JsonRpc::Answer::Empty();
    }
    std::size_t& served = m_served[server];
    if (served >= kMaxServed)
    {
        return JsonRpc::Answer::Error(JsonRpc::UNREACHABLE, "this client serves too many paths", m_ownGuid);
    }
    ++served;
    m_paths[path][verb] = Endpoint{server, scope};
    if (m_onServed)
    {
        m_onServed(verb, path);
    }
    return JsonRpc::Answer::Empty();
}

JsonRpc::Answer Router::Withdraw(PathServerIF* server, const std::string& verb, const std::string& path)
{
    const auto found = m_paths.find(path);
    const auto endpoint = found != m_paths.end() ? found->second.find(verb) : decltype(found->second.end())();
    if (found == m_paths.end() || endpoint == found->second.end() || endpoint->second.server != server)
    {
        return JsonRpc::Answer::Error(JsonRpc::NOT_SERVED, "this client does not serve " + verb + " " + path,
                                      m_ownGuid);
    }
    found->second.erase(endpoint);
    --m_served[server];
    if (found->second.empty())
    {
        m_paths.erase(found);
    }
    return JsonRpc::Answer::Empty();
}

void Router::Forget(PathServerIF* server)
{
    m_served.erase(server);
    for (auto path = m_paths.begin(); path != m_paths.end();)
    {
        std::erase_if(path->second, [server](const auto& verb) { return verb.second.server == server; });
        path = path->second.empty() ? m_paths.erase(path) : std::next(path);
    }
}

void Router::Send(const JsonRpc::Request& request, Origin origin, const JsonRpc::AnswerCallback& answer) const
{
    const auto found = m_paths.find(request.path);
    if (found == m_paths.end() || (origin == Origin::LAN && !IsPublic(request.path)))
    {
        answer(JsonRpc::Answer::Error(JsonRpc::NOT_SERVED, "nobody serves " + request.path, m_ownGuid));
        return;
    }
    const auto endpoint = found->second.find(request.verb);
    const bool isThere = endpoint != found->second.end() && (origin == Origin::LOCAL || endpoint->second.scope == 0);
    if (!isThere)
    {
        answer(
            JsonRpc::Answer::Error(JsonRpc::WRONG_VERB, request.path + " does not answer " + request.verb, m_ownGuid));
        return;
    }
    endpoint->second.server->Handle(request, answer);
}

bool Router::IsServed(const std::string& verb, const std::string& path) const
{
    const auto found = m_paths.find(path);
    return found != m_paths.end() && found->second.count(verb) != 0;
}

bool Router::IsServedBy(const PathServerIF* server, const std::string& path) const
{
    const auto found = m_paths.find(path);
    return found != m_paths.end() && std::any_of(found->second.begin(), found->second.end(),
                                                 [server](const auto& verb) { return verb.second.server == server; });
}

bool Router::HasServer(const std::string& path) const
{
    return m_paths.count(path) != 0;
}

bool Router::IsPublic(const std::string& path, const PathServerIF* server) const
{
    const auto found = m_paths.find(path);
    return found != m_paths.end() &&
           std::any_of(found->second.begin(), found->second.end(),
                       [server](const auto& verb)
                       { return verb.second.scope == 0 && (server == nullptr || verb.second.server == server); });
}

} // namespace Gateway
