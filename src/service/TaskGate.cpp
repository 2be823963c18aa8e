#include "service/TaskGate.h"

#include "runtime/ConditionSemaphore.h"
#include "runtime/Task.h"

namespace SonarixService
{

TaskGate::TaskGate(NotifyTargetTaskIF* task)
    : m_open(std::make_shared<ConditionSemaphore>(0))
{
    IL::BreakThread([open = m_open] { open->Wait(kLimitMs); }, task);
}

TaskGate::~TaskGate()
{
    m_open->Signal();
}

} // namespace SonarixService
