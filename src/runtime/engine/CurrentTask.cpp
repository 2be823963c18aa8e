#include "runtime/engine/CurrentTask.h"

#include "runtime/Task.h"

#include <utility>

namespace
{

thread_local const NotifyTargetTaskIF* t_current = nullptr;

} // namespace

namespace IL
{

const NotifyTargetTaskIF* CurrentTask()
{
    return t_current;
}

CurrentTaskScope::CurrentTaskScope(const NotifyTargetTaskIF* task)
    : m_before(std::exchange(t_current, task))
{
}

CurrentTaskScope::~CurrentTaskScope()
{
    t_current = m_before;
}

} // namespace IL
