#include "runtime/engine/ThreadName.h"

#include <cstddef>
#include <pthread.h>
#include <string_view>

namespace IL
{

std::string ThreadNameFromTaskName(const std::string& taskName)
{
    constexpr std::size_t kMaxBytes = 15; // TASK_COMM_LEN without the terminating NUL
    constexpr std::size_t kFirst = 5;
    constexpr std::size_t kLast = 9;
    constexpr std::string_view kSuffix = "Task";
    std::string name = taskName;
    if (name.size() > kMaxBytes && name.ends_with(kSuffix))
    {
        name.resize(name.size() - kSuffix.size());
    }
    if (name.size() > kMaxBytes)
    {
        name.replace(kFirst, name.size() - kFirst - kLast, "~");
    }
    return name;
}

void SetThreadName(const std::string& taskName)
{
    pthread_setname_np(pthread_self(), ThreadNameFromTaskName(taskName).c_str());
}

} // namespace IL
