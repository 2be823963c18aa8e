#include "tools/clients/options/SignalDescriptor.h"

#include <sys/signalfd.h>
#include <unistd.h>

SignalDescriptor::SignalDescriptor(std::initializer_list<int> numbers)
{
    sigemptyset(&m_signals);
    for (const int number : numbers)
    {
        sigaddset(&m_signals, number);
    }
    sigprocmask(SIG_BLOCK, &m_signals, nullptr);
    m_descriptor = signalfd(-1, &m_signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

SignalDescriptor::~SignalDescriptor()
{
    close(m_descriptor);
}

int SignalDescriptor::Take()
{
    signalfd_siginfo info{};
    return read(m_descriptor, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))
               ? static_cast<int>(info.ssi_signo)
               : 0;
}

void SignalDescriptor::Unblock()
{
    sigprocmask(SIG_UNBLOCK, &m_signals, nullptr);
}
