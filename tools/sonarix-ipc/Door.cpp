#include "Door.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <string_view>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

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
    const auto rest = std::chrono::ceil<std::chrono::milliseconds>(until - Door::Clock::now());
    return static_cast<int>(std::max<std::int64_t>(0, std::min<std::int64_t>(rest.count(), 24 * 3600 * 1000)));
}

} // namespace

Door::Door(std::string path)
    : m_path(std::move(path))
{
}

Door::~Door()
{
    Shut();
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
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (m_path.size() >= sizeof(address.sun_path))
    {
        errno = ENAMETOOLONG;
        return false;
    }
    m_path.copy(address.sun_path, m_path.size());
    m_socket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_socket >= 0 && connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0)
    {
        return true;
    }
    const int error = errno;
    Shut();
    errno = error;
    return false;
}

void Door::Shut()
{
    if (m_socket >= 0)
    {
        close(m_socket);
    }
    m_socket = -1;
    m_reader = {};
}

void Door::Ask(std::uint32_t id, std::uint32_t tid, const google::protobuf::Message& payload)
{
    IPCMessageEnvelope envelope;
    envelope.SetPayload(payload);
    envelope.set_id(id);
    envelope.set_tid(tid);
    std::string frame;
    if (!IPCFraming::AppendFrame(frame, envelope))
    {
        return; // a command line is not that long
    }
    for (std::string_view rest = frame; !rest.empty();)
    {
        const ssize_t sent = send(m_socket, rest.data(), rest.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno != EINTR)
        {
            shutdown(m_socket, SHUT_RDWR);
            return;
        }
        rest.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(sent, 0)));
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
        std::array<pollfd, 2> waiting = {{{m_signals, POLLIN, 0}, {m_socket, POLLIN, 0}}};
        const int ready = poll(waiting.data(), waiting.size(), MillisecondsUntil(until));
        if (ready > 0 && waiting[0].revents != 0)
        {
            TakeSignal();
            return SIGNAL;
        }
        if (ready > 0 && waiting[1].revents != 0 && !ReadMore())
        {
            Shut();
            return CLOSED;
        }
        if (ready == 0 && Clock::now() >= until)
        {
            return TIME;
        }
    }
}

bool Door::ReadMore()
{
    std::array<char, 65536> bytes{};
    const ssize_t count = recv(m_socket, bytes.data(), bytes.size(), 0);
    if (count > 0)
    {
        m_reader.Append({bytes.data(), static_cast<std::size_t>(count)});
    }
    return count > 0 || (count < 0 && errno == EINTR);
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
