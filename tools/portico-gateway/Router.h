#pragma once

#include "jsonrpc/Frame.h"
#include "jsonrpc/PendingRequests.h"

#include <cstddef>
#include <functional>
#include <map>
#include <string>

namespace Gateway
{

/// The origin of a request or subscription. LAN clients see paths of scope 0 only.
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
    virtual void Handle(const JsonRpc::Request& request, const JsonRpc::AnswerCallback& answer) = 0;
};

/// Knows which client serves which path, and forwards requests to it.
/// Task: everything on the gateway's task. Owner: the gateway. Does not own servers: each calls Forget() when it
/// ends.
class Router final
{
public:
    explicit Router(std::string ownGuid);
    Router(const Router&) = delete;
    Router& operator=(const Router&) = delete;

    /// Called with (verb, path) when a client begins to serve a path.
    void SetServedCallback(std::function<void(const std::string& verb, const std::string& path)> callback);

    /// Returns PATH_TAKEN if another client serves this verb of the path. Serving it twice changes its scope. Returns
    /// UNREACHABLE if this client already serves kMaxServed; other clients do not count.
    JsonRpc::Answer Serve(PathServerIF* server, const std::string& verb, const std::string& path, int scope);
    /// Returns NOT_SERVED if this client does not serve the verb of the path.
    JsonRpc::Answer Withdraw(PathServerIF* server, const std::string& verb, const std::string& path);
    void Forget(PathServerIF* server);

    /// `answer` is called once, perhaps before Send() returns.
    void Send(const JsonRpc::Request& request, Origin origin, const JsonRpc::AnswerCallback& answer) const;

    bool IsServed(const std::string& verb, const std::string& path) const;
    bool IsServedBy(const PathServerIF* server, const std::string& path) const;
    bool HasServer(const std::string& path) const;
    /// True if other products may see the path: one of its verbs (of `server`, unless null) has scope 0.
    bool IsPublic(const std::string& path, const PathServerIF* server = nullptr) const;

    static constexpr std::size_t kMaxServed = 16384; ///< by one client; each verb of a path counts

private:
    struct Endpoint
    {
        PathServerIF* server;
        int scope;
    };

    const std::string m_ownGuid;
    std::function<void(const std::string&, const std::string&)> m_onServed;
    std::map<std::string, std::map<std::string, Endpoint>> m_paths; ///< by path and verb
    std::map<const PathServerIF*, std::size_t> m_served;            ///< number of entries of each server
};

} // namespace Gateway
