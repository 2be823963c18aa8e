#include "tools/hub-service/Advertiser.h"

#include "runtime/MonotonicClock.h"

#include <algorithm>
#include <utility>

Advertiser::Advertiser(NotifyTargetTaskIF* task, std::string name, Post post)
    : m_name(std::move(name))
    , m_post(std::move(post))
    , m_retryTimer("HubServiceRetry", task)
    , m_nameTimer("HubServiceName", task)
{
}

void Advertiser::HandleNetwork(bool isPrimaryUp)
{
    if (isPrimaryUp && !std::exchange(m_isPrimaryUp, isPrimaryUp))
    {
        PostNow();
    }
    m_isPrimaryUp = isPrimaryUp;
}

void Advertiser::ForgetNetwork()
{
    m_isPrimaryUp = false;
}

void Advertiser::HandleOwnName(const std::string& name)
{
    m_isNameWrong = name != m_name;
    if (!m_isNameWrong)
    {
        return;
    }
    // A record without a name means that the service was restarted and announces nothing. A cached mDNS record of the
    // product may set the name soon, but the announcement is still needed.
    if (name.empty() && !m_isPosting)
    {
        PostNow();
        return;
    }
    PostForName();
}

void Advertiser::PostForName()
{
    if (m_isPosting) // the record may be older than the pending post
    {
        return;
    }
    const std::int64_t now = MonotonicClock::NowMs();
    if (now < m_notBeforeMs)
    {
        m_nameTimer.PostIn(static_cast<unsigned int>(m_notBeforeMs - now),
                           [this]
                           {
                               if (m_isNameWrong)
                               {
                                   PostForName();
                               }
                           });
        return;
    }
    const bool hasLasted = now - m_notBeforeMs >= m_pause.count();
    m_pause = hasLasted ? kFirstPause : std::min(m_pause * 2, kLongestPause);
    m_notBeforeMs = now + m_pause.count();
    PostNow();
}

void Advertiser::PostNow()
{
    if (m_isPosting)
    {
        m_isPostWanted = true;
        return;
    }
    m_isPosting = true;
    m_post();
}

void Advertiser::HandlePosted(bool isAccepted)
{
    if (!isAccepted)
    {
        m_retryTimer.PostIn(static_cast<unsigned int>(m_retry.Next().count()), [this] { m_post(); });
        return;
    }
    m_retry.Reset();
    m_isPosting = false;
    m_notBeforeMs = std::max(m_notBeforeMs, MonotonicClock::NowMs() + kFirstPause.count());
    if (std::exchange(m_isPostWanted, false))
    {
        PostNow();
    }
    else if (m_isNameWrong) // a record that reflects the post has not arrived yet
    {
        PostForName();
    }
}
