#include "IoTask.h"

#include "Task.h"

NotifyTargetTaskIF* Portico::IoTask()
{
    static NotifyTargetTaskIF* const task = IL::CreateTask("PorticoClientIO", "");
    return task;
}
