#pragma once

#include <csignal>
#include <initializer_list>

/// Blocks signals and delivers them through a descriptor instead. At most one per single-threaded process.
class SignalDescriptor final
{
public:
    explicit SignalDescriptor(std::initializer_list<int> numbers);
    ~SignalDescriptor();
    SignalDescriptor(const SignalDescriptor&) = delete;
    SignalDescriptor& operator=(const SignalDescriptor&) = delete;

    int Descriptor() const ///< readable when a signal is pending
    {
        return m_descriptor;
    }
    /// Takes the number of the next pending signal; 0 if there is none.
    int Take();
    /// Unblocks the signals, so that the next one has its default action.
    void Unblock();

private:
    sigset_t m_signals{};
    int m_descriptor;
};
