#pragma once

#include "base/Backoff.h"
#include "runtime/Timers.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

class NotifyTargetTaskIF;

/// Decides when the product's description is to be posted: when the own record lacks the name or has another one,
/// and at each rise of the network.
/// Task: everything on the task given, the destructor too. One post at a time.
///
/// A record that mDNS renamed after a collision comes back with the new name after each post. So that this does not
/// go on for ever at the speed of the network, posts because of another name keep pauses, which grow while they do
/// not last; a record without a name, and a rise of the network, never wait.
class Advertiser final
{
public:
    using Post = std::function<void()>; ///< its outcome comes to HandlePosted()

    static constexpr std::chrono::milliseconds kFirstPause{5000};
    static constexpr std::chrono::milliseconds kLongestPause{300000};

    Advertiser(NotifyTargetTaskIF* task, std::string name, Post post);
    Advertiser(const Advertiser&) = delete;
    Advertiser& operator=(const Advertiser&) = delete;

    /// `name` is what the own record says now, empty where it lacks one.
    void HandleOwnName(const std::string& name);
    void HandleNetwork(bool isPrimaryUp);
    /// Nobody tells us of the network any more: what is heard next may be another rise, and counts as one.
    void ForgetNetwork();
    /// A post that failed, since nobody serves the path yet, is tried again with pauses up to 5 s.
    void HandlePosted(bool isAccepted);

private:
    void PostNow();
    void PostForName();

    const std::string m_name;
    const Post m_post;
    bool m_isPrimaryUp = false;
    bool m_isPosting = false;    ///< an answer, or the time to ask again, is awaited
    bool m_isPostWanted = false; ///< once more as soon as that has come
    bool m_isNameWrong = false;
    std::chrono::milliseconds m_pause = kFirstPause;
    std::int64_t m_notBeforeMs = -kFirstPause.count(); ///< the next post because of the name
    Portico::Backoff m_retry;
    MessageTimer m_retryTimer;
    MessageTimer m_nameTimer;
};
