#pragma once

#include <mutex>

/// A recursive mutex. Protects copies and lists; never held during a call to another object's logic.
class CThreadMutex
{
public:
    enum SUSPEND_TYPE
    {
        SUSPEND_FOREVER = 0, ///< wait without limit
    };

    void Obtain(SUSPEND_TYPE)
    {
        m_mutex.lock();
    }
    void Release()
    {
        m_mutex.unlock();
    }

private:
    std::recursive_mutex m_mutex;
};

/// Holds a CThreadMutex for a scope.
class ScopedMutex final
{
public:
    explicit ScopedMutex(CThreadMutex& mutex)
        : m_mutex(mutex)
    {
        m_mutex.Obtain(CThreadMutex::SUSPEND_FOREVER);
    }
    ~ScopedMutex()
    {
        m_mutex.Release();
    }
    ScopedMutex(const ScopedMutex&) = delete;
    ScopedMutex& operator=(const ScopedMutex&) = delete;

private:
    CThreadMutex& m_mutex;
};
