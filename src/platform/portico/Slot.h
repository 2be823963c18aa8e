#pragma once

#include "runtime/Callback.h"
#include "runtime/ThreadMutex.h"

#include <memory>
#include <utility>

namespace Portico
{

/// Shut once, when the client ends: from then on none of its callbacks starts.
struct Gate
{
    CThreadMutex mutex; ///< held while a callback of the client runs
    bool isOpen = true;
};

/// What a CallbackConnection of the client library switches off.
class SlotIF
{
public:
    virtual ~SlotIF() = default;
    virtual void Clear() = 0;
    virtual bool IsSet() const = 0;
};

/// A callback of the client's user that can be taken away from any thread: once Clear() has returned, or the gate
/// is shut, it does not start. A callback may clear its own slot, or end its client.
template <class... Args>
class Slot final : public SlotIF
{
public:
    Slot(std::shared_ptr<Gate> gate, const Callback<Args...>& callback)
        : m_gate(std::move(gate))
        , m_callback(std::make_shared<const Callback<Args...>>(callback))
    {
    }

    void Call(const Args&... args) const
    {
        std::shared_ptr<const Callback<Args...>> callback; // destroyed after the mutex is free again
        const ScopedMutex lock(m_gate->mutex);
        callback = m_callback;
        if (callback && m_gate->isOpen)
        {
            (*callback)(args...);
        }
    }

    void Clear() override
    {
        std::shared_ptr<const Callback<Args...>> callback;
        const ScopedMutex lock(m_gate->mutex);
        callback.swap(m_callback);
    }

    bool IsSet() const override
    {
        const ScopedMutex lock(m_gate->mutex);
        return m_callback && m_gate->isOpen;
    }

private:
    std::shared_ptr<Gate> m_gate;
    std::shared_ptr<const Callback<Args...>> m_callback;
};

} // namespace Portico
