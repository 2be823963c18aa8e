#include "tools/portico-gateway/Subscriptions.h"

#include "runtime/DPrint.h"

#include <iterator>

namespace Gateway
{
namespace
{

const DPrint s_log("PorticoGateway");

} // namespace

Subscriptions::Subscriptions(const Router& router)
    : m_router(router)
{
}

JsonRpc::Answer Subscriptions::Add(SubscriberIF* subscriber, const std::string& path, Origin origin)
{
    std::set<std::string>& paths = m_paths[subscriber];
    const std::size_t limit = origin == Origin::LAN ? kMaxPathsLan : kMaxPathsLocal;
    if (paths.size() >= limit && paths.count(path) == 0)
    {
        return JsonRpc::Answer::Error(JsonRpc::UNREACHABLE, "too many subscriptions", {});
    }
    paths.insert(path);
    m_subscribers[path][subscriber] = origin;
    return JsonRpc::Answer::Empty();
}

void Subscriptions::Remove(SubscriberIF* subscriber, const std::string& path)
{
    const auto paths = m_paths.find(subscriber);
    if (paths == m_paths.end() || paths->second.erase(path) == 0)
    {
        return;
    }
    if (const auto missed = m_missed.find(subscriber); missed != m_missed.end())
    {
        missed->second.erase(path);
    }
    const auto subscribers = m_subscribers.find(path);
    subscribers->second.erase(subscriber);
    if (subscribers->second.empty())
    {
        m_subscribers.erase(subscribers);
    }
}

void Subscriptions::Forget(SubscriberIF* subscriber)
{
    const auto found = m_paths.find(subscriber);
    if (found == m_paths.end())
    {
        return;
    }
    const std::set<std::string> paths = found->second;
    for (const std::string& path : paths)
    {
        Remove(subscriber, path);
    }
    m_paths.erase(subscriber);
    m_missed.erase(subscriber);
}

void Subscriptions::SendLast(SubscriberIF* subscriber, const std::string& path, Origin origin) const
{
    const auto last = m_last.find(path);
    if (last != m_last.end() && (origin == Origin::LOCAL || m_router.IsPublic(path, last->second.server)))
    {
        subscriber->Send(last->second.frame);
    }
}

void Subscriptions::Notify(const PathServerIF* server, const std::string& path, const std::string& version,
                           const std::string& body)
{
    const std::string frame = JsonRpc::TextFromNotification(path, version, body);
    const bool isKept = KeepLast(server, path, frame);
    const auto found = m_subscribers.find(path);
    if (found == m_subscribers.end())
    {
        return;
    }
    const bool isPublic = m_router.IsPublic(path, server);
    for (const auto& [subscriber, origin] : found->second)
    {
        if (origin == Origin::LOCAL || isPublic)
        {
            isKept ? SendOrDefer(subscriber, path, frame) : subscriber->Send(frame);
        }
    }
}

/// Sends the frame, or marks the path as missed if the subscriber's queue is full.
void Subscriptions::SendOrDefer(SubscriberIF* subscriber, const std::string& path, const std::string& frame)
{
    if (!subscriber->HasRoomFor(frame.size()))
    {
        m_missed[subscriber].insert(path);
        return;
    }
    if (const auto missed = m_missed.find(subscriber); missed != m_missed.end())
    {
        missed->second.erase(path);
    }
    subscriber->Send(frame);
}

void Subscriptions::SendMissed(SubscriberIF* subscriber)
{
    const auto missed = m_missed.extract(subscriber);
    if (missed.empty())
    {
        return;
    }
    for (const std::string& path : missed.mapped())
    {
        const auto last = m_last.find(path);
        const bool isLocal = m_subscribers.at(path).at(subscriber) == Origin::LOCAL;
        if (last != m_last.end() && (isLocal || m_router.IsPublic(path, last->second.server)))
        {
            SendOrDefer(subscriber, path, last->second.frame);
        }
    }
}

void Subscriptions::DropLast(const PathServerIF* server, const std::string& path)
{
    const auto last = m_last.find(path);
    if (last != m_last.end() && last->second.server == server)
    {
        Erase(last);
    }
}

void Subscriptions::DropLast(const PathServerIF* server)
{
    for (auto last = m_last.begin(); last != m_last.end();)
    {
        const auto next = std::next(last);
        if (last->second.server == server)
        {
            Erase(last);
        }
        last = next;
    }
}

bool Subscriptions::KeepLast(const PathServerIF* server, const std::string& path, const std::string& frame)
{
    if (const auto old = m_last.find(path); old != m_last.end())
    {
        Erase(old); // if the new one is not kept, the old one is outdated too
    }
    if (m_lastBytes + frame.size() <= kMaxLastBytes)
    {
        m_lastBytes += frame.size();
        m_last[path] = Last{server, frame};
        return true;
    }
    if (!m_isFullLogged)
    {
        m_isFullLogged = true;
        DPRINTF(s_log, DPrint::LEVEL_WARNING, "the last notification of %s is not kept: %zu of %zu bytes are in use",
                path.c_str(), m_lastBytes, kMaxLastBytes);
    }
    return false;
}

void Subscriptions::Erase(std::map<std::string, Last>::iterator last)
{
    m_lastBytes -= last->second.frame.size();
    m_last.erase(last);
    m_isFullLogged = m_isFullLogged && m_lastBytes > kMaxLastBytes / 2;
}

} // namespace Gateway
