#pragma once

#include "tools/portico-gateway/PendingRequests.h"
#include "tools/portico-gateway/RpcFrame.h"

#include <cstddef>
#include <functional>
#include <map>
#include <string>

namespace Gateway
{

/// Where a request or subscription comes from: this product sees everything, others what has scope 0.
enum class Origin
{
    LOCAL,
    LAN,
};

/// A client that serves paths.
class PathServerIF
{
public:
    virtual ~PathServerIF() = default;
    virtual void Handle(const Request& request, const AnswerCallback& answer) = 0;
};

/// Which client serves which path, and the way of a request there.
/// Task: the gateway's. Owner: the gateway. Never keeps a server alive: each tells when it goes.
class Router final
{
public:
    explicit Router(std::string ownGuid);
    Router(const Router&) = delete;
    Router& operator=(const Router&) = delete;

    /// Called with (verb, path) at each path newly served.
    void SetServedCallback(std::function<void(const std::string& verb, const std::string& path)> callback);

    /// PATH_TAKEN where another client serves this verb of the path; serving it twice changes its scope.
    /// UNREACHABLE where this client serves kMaxServed already; the others' do not count.
    Answer Serve(PathServerIF* server, const std::string& verb, const std::string& path, int scope);
    /// NOT_SERVED where this client does not serve it.
    Answer Withdraw(PathServerIF* server, const std::string& verb, const std::string& path);
    void Forget(PathServerIF* server);

    /// `answer` is called once, perhaps before the return.
    void Send(const Request& request, Origin origin, const AnswerCallback& answer) const;

    bool IsServed(const std::string& verb, const std::string& path) const;
    bool IsServedBy(const PathServerIF* server, const std::string& path) const;
    bool IsServedAtAll(const std::string& path) const;
    /// Whether other products see the path: one of its verbs, of `server` where given, has scope 0.
    bool IsPublic(const std::string& path, const PathServerIF* server = nullptr) const;

    static constexpr std::size_t kMaxServed = 16384; ///< by one client, each verb of a path counted

private:
    struct Endpoint
    {
        PathServerIF* server;
        int scope;
    };

    const std::string m_ownGuid;
    std::function<void(const std::string&, const std::string&)> m_onServed;
    std::map<std::string, std::map<std::string, Endpoint>> m_paths; ///< path, verb
    std::map<const PathServerIF*, std::size_t> m_served;            ///< how many each has there
};

} // namespace Gateway
