#include "runtime/TaskCheck.h"

#ifndef NDEBUG

#include "runtime/Task.h"
#include "runtime/engine/Engine.h"

#include <cstdio>
#include <cstdlib>

namespace IL
{

void CheckTask(const NotifyTargetTaskIF* task, const char* function)
{
    if (task == nullptr || task->IsCurrent() || task->HasEnded())
    {
        return;
    }
    const NotifyTargetTaskIF* const current = CurrentTask();
    if (current == nullptr && Engine::Current().StepsWhileWaiting())
    {
        return;
    }
    std::fprintf(stderr, "%s belongs to task %s and runs on %s\n", function, task->Name().c_str(),
                 current != nullptr ? ("task " + current->Name()).c_str() : "a thread outside all tasks");
    std::abort();
}

} // namespace IL

#endif
