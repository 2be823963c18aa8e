#pragma once

class NotifyTargetTaskIF;

namespace IL
{

/// While it lives, `task` is the one that the calling thread runs; null: none. Scopes of one thread nest.
class CurrentTaskScope final
{
public:
    explicit CurrentTaskScope(const NotifyTargetTaskIF* task);
    ~CurrentTaskScope();
    CurrentTaskScope(const CurrentTaskScope&) = delete;
    CurrentTaskScope& operator=(const CurrentTaskScope&) = delete;

private:
    const NotifyTargetTaskIF* const m_before;
};

} // namespace IL
