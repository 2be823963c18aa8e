#include "runtime/CTask.h"

#include "runtime/CaughtException.h"

#include <cstddef>
#include <pthread.h>
#include <signal.h>
#include <system_error>

namespace
{

/// The one user fetches URLs: 12 KiB measured for a GET, 14 KiB for one by TLS. A libcurl that does not look names up
/// on threads of its own does it on ours, where getaddrinfo() takes 64 KiB and more for a large answer; and a
/// requester's callback wants its share. What is not touched costs address space alone. Sanitizers make frames
/// several times larger.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t kStackBytes = std::size_t{4} * 1024 * 1024;
#else
constexpr std::size_t kStackBytes = std::size_t{256} * 1024;
#endif

constexpr std::size_t kThreadNameLength = 15; ///< the kernel's limit, without the end of the string

/// Blocks signals for a scope; a thread that is made in it starts with them blocked.
class BlockedSignals final
{
public:
    BlockedSignals()
    {
        sigset_t blocked;
        sigfillset(&blocked);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS})
        {
            sigdelset(&blocked, fault);
        }
        pthread_sigmask(SIG_BLOCK, &blocked, &m_before);
    }
    ~BlockedSignals()
    {
        pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;

private:
    sigset_t m_before{};
};

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
    int error = 0;
    {
        const BlockedSignals blocked;
        error = pthread_create(&thread, &attributes, &CTask::ThreadMain, self.get());
    }
    pthread_attr_destroy(&attributes);
    if (error != 0)
    {
        throw std::system_error(error, std::generic_category(), "no thread for task " + m_name);
    }
    static_cast<void>(self.release()); // the thread's now
}

void* CTask::ThreadMain(void* self)
{
    const std::unique_ptr<std::shared_ptr<CTask>> task(static_cast<std::shared_ptr<CTask>*>(self));
    const std::string& name = (*task)->m_name;
    pthread_setname_np(pthread_self(), name.substr(0, kThreadNameLength).c_str());
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
