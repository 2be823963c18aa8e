#include "service/TaskPause.h"

#include "runtime/ConditionSemaphore.h"
#include "runtime/Task.h"

namespace SonarixService
{

TaskPause::TaskPause(NotifyTargetTaskIF* task)
    : m_end(std::make_shared<ConditionSemaphore>(0))
{
    IL::BreakThread([end = m_end] { end->Wait(kLimitMs); }, task);
}

TaskPause::~TaskPause()
{
    m_end->Signal();
}

} // namespace SonarixService
