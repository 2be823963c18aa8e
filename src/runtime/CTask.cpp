#include "runtime/CTask.h"

#include "runtime/CaughtException.h"
#include "runtime/engine/ThreadName.h"

#include <cstddef>
#include <pthread.h>
#include <system_error>

namespace
{

/// CTask runs URL fetches. Measured: 12 KiB for a GET, 14 KiB for a GET by TLS. getaddrinfo() without libcurl's
/// resolver threads needs 64 KiB, more for a large answer. The rest is for the caller's callback. Untouched stack costs
/// address space only. Frames of sanitizer builds are several times larger.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t kStackBytes = std::size_t{4} * 1024 * 1024;
#else
constexpr std::size_t kStackBytes = std::size_t{256} * 1024;
#endif

} // namespace

CTask::CTask(const char* name, bool, RealtimeType, int)
    : m_name(name)
{
}

void CTask::Start()
{
    auto self = std::make_unique<std::shared_ptr<CTask>>(shared_from_this());
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kStackBytes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread{};
    const int error = pthread_create(&thread, &attributes, &CTask::ThreadMain, self.get());
    pthread_attr_destroy(&attributes);
    if (error != 0)
    {
        throw std::system_error(error, std::generic_category(), "no thread for task " + m_name);
    }
    static_cast<void>(self.release()); // the thread owns it
}

void* CTask::ThreadMain(void* self)
{
    const std::unique_ptr<std::shared_ptr<CTask>> task(static_cast<std::shared_ptr<CTask>*>(self));
    const std::string& name = (*task)->m_name;
    IL::SetThreadName(name);
    try
    {
        (*task)->Body();
    }
    catch (...)
    {
        IL::LogCaughtException(name);
    }
    return nullptr;
}
