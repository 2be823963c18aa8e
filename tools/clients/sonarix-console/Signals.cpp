#include "tools/clients/sonarix-console/Signals.h"

#include <csignal>
#include <initializer_list>
#include <sys/signalfd.h>
#include <unistd.h>

Signals::Signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGWINCH, SIGCONT})
    {
        sigaddset(&signals, number);
    }
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    m_descriptor = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

Signals::~Signals()
{
    close(m_descriptor);
}

int Signals::Take()
{
    signalfd_siginfo info{};
    return read(m_descriptor, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))
               ? static_cast<int>(info.ssi_signo)
               : 0;
}
