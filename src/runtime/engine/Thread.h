#pragma once

#include <cstddef>
#include <pthread.h>
#include <string>

namespace IL
{

/// The name that the kernel shows for the thread of a task. Linux keeps 15 bytes, and several task names have the same
/// first 15 bytes. From a longer name a trailing "Task" is removed; if the rest is still too long, the result is its
/// first 5 bytes, '~' and its last 9 bytes.
std::string ThreadNameFromTaskName(const std::string& taskName);

/// Names the calling thread after its task.
void SetThreadName(const std::string& taskName);

/// Starts a thread that can be joined, for the task of that name. Frames of sanitizer builds are several times larger,
/// so their stacks have at least 4 MiB. Throws std::system_error.
pthread_t StartThread(const std::string& taskName, std::size_t stackBytes, void* (*main)(void*), void* argument);

} // namespace IL
