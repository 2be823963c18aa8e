#include "platform/portico/IoTask.h"

#include "runtime/Task.h"

NotifyTargetTaskIF* Portico::IoTask()
{
    static NotifyTargetTaskIF* const task = IL::CreateTask("PorticoClientIO", "");
    return task;
}
