#include "tools/clients/sonarix-ipc/Door.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace
{

sigset_t EndingSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
    {
        sigaddset(&signals, number);
    }
    return signals;
}

int MillisecondsUntil(Door::Clock::time_point until)
{
    using std::chrono::milliseconds;
    const auto rest = std::chrono::ceil<milliseconds>(until - Door::Clock::now());
    return static_cast<int>(std::clamp(rest, milliseconds(0), milliseconds(std::chrono::hours(24))).count());
}

} // namespace

Door::Door(const std::string& path)
    : m_socket(path)
{
}

Door::~Door()
{
    if (m_signals >= 0)
    {
        close(m_signals);
    }
}

void Door::CatchSignals()
{
    const sigset_t signals = EndingSignals();
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    m_signals = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

bool Door::Open()
{
    Shut();
    return m_socket.Open();
}

void Door::Shut()
{
    m_socket.Shut();
    m_reader = {};
}

void Door::Ask(std::uint32_t id, std::uint32_t tid, const google::protobuf::Message& payload)
{
    IPCMessageEnvelope envelope;
    envelope.SetPayload(payload);
    envelope->set_id(id);
    envelope->set_tid(tid);
    envelope->set_kind(IPCMessageEnvelopeBase::REQUEST);
    std::string frame;
    if (IPCFraming::AppendFrame(frame, envelope)) // a command line is not too long for one
    {
        m_socket.Send(frame);
    }
}

Door::Event Door::Wait(Clock::time_point until, IPCMessageEnvelope& message)
{
    for (;;)
    {
        const auto result = IsOpen() ? m_reader.Next(message) : IPCFraming::FrameReader::MORE;
        if (result == IPCFraming::FrameReader::ENVELOPE)
        {
            return MESSAGE;
        }
        if (result == IPCFraming::FrameReader::FAULT)
        {
            Shut();
            return CLOSED;
        }
        std::array<pollfd, 2> waiting = {{{m_signals, POLLIN, 0}, {m_socket.Descriptor(), POLLIN, 0}}};
        const int ready = poll(waiting.data(), waiting.size(), MillisecondsUntil(until));
        if (ready > 0 && waiting[0].revents != 0)
        {
            TakeSignal();
            return SIGNAL;
        }
        if (ready > 0 && waiting[1].revents != 0)
        {
            std::string bytes;
            if (!m_socket.Receive(bytes))
            {
                Shut();
                return CLOSED;
            }
            m_reader.Append(bytes);
        }
        if (ready == 0 && Clock::now() >= until)
        {
            return TIME;
        }
    }
}

void Door::TakeSignal()
{
    signalfd_siginfo info{};
    if (read(m_signals, &info, sizeof(info)) > 0)
    {
        const sigset_t signals = EndingSignals();
        sigprocmask(SIG_UNBLOCK, &signals, nullptr);
    }
}
