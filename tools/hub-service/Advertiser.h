#pragma once

#include "base/Backoff.h"
#include "runtime/Timers.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

class NotifyTargetTaskIF;

/// Decides when to post the product's description: when the name in the own record is missing or different, and each
/// time the network comes up.
/// Task: all calls and the destructor run on `task`. At most one post is pending.
///
/// Design: after a name collision, mDNS renames the record, so each post is followed by a record with a different name.
/// The pause between posts for this reason therefore grows from kFirstPause to kLongestPause. A record without a name
/// and a network that comes up are posted without a pause.
class Advertiser final
{
public:
    using Post = std::function<void()>; ///< its result is passed to HandlePosted()

    static constexpr std::chrono::milliseconds kFirstPause{5000};
    static constexpr std::chrono::milliseconds kLongestPause{300000};

    Advertiser(NotifyTargetTaskIF* task, std::string name, Post post);
    Advertiser(const Advertiser&) = delete;
    Advertiser& operator=(const Advertiser&) = delete;

    /// `name` is the current name in the own record, empty if it has none.
    void HandleOwnName(const std::string& name);
    void HandleNetwork(bool isPrimaryUp);
    /// The gateway connection was lost. The next report of a network that is up counts as coming up.
    void ForgetNetwork();
    /// A failed post (no process serves the path yet) is retried with a backoff of up to 5 s.
    void HandlePosted(bool isAccepted);

private:
    void PostNow();
    void PostForName();

    const std::string m_name;
    const Post m_post;
    bool m_isPrimaryUp = false;
    bool m_isPosting = false;    ///< a result or the retry timer is pending
    bool m_isPostWanted = false; ///< post again after the pending one
    bool m_isNameWrong = false;
    std::chrono::milliseconds m_pause = kFirstPause;
    std::int64_t m_notBeforeMs = -kFirstPause.count(); ///< earliest time of the next post for a different name
    Portico::Backoff m_retry;
    MessageTimer m_retryTimer;
    MessageTimer m_nameTimer;
};
