#pragma once

class NotifyTargetTaskIF;

namespace IL
{

/// Sets CurrentTask() of the calling thread for a scope; null: outside all tasks. Scopes of one thread nest.
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
