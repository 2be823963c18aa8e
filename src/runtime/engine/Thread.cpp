#include "runtime/engine/Thread.h"

#include <algorithm>
#include <string_view>
#include <system_error>

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

pthread_t StartThread(const std::string& taskName, std::size_t stackBytes, void* (*main)(void*), void* argument)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    stackBytes = std::max(stackBytes, std::size_t{4} << 20U);
#endif
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, stackBytes);
    pthread_t thread{};
    const int error = pthread_create(&thread, &attributes, main, argument);
    pthread_attr_destroy(&attributes);
    if (error != 0)
    {
        throw std::system_error(error, std::generic_category(), "no thread for task " + taskName);
    }
    return thread;
}

} // namespace IL
