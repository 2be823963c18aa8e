#pragma once

#include "runtime/ipc/IPCFraming.h"
#include "runtime/ipc/IPCMessageEnvelope.h"
#include "tools/clients/options/LocalSocket.h"

#include <chrono>
#include <cstdint>
#include <string>

/// One local socket of the service, from the client's side. For one thread, which it blocks.
class Door final
{
public:
    using Clock = std::chrono::steady_clock;

    enum Event
    {
        MESSAGE,
        CLOSED, ///< the service has gone, or sent what is no message; the door is shut
        SIGNAL, ///< one that CatchSignals() took on
        TIME,   ///< the point of time has come
    };

    explicit Door(const std::string& path);
    ~Door();
    Door(const Door&) = delete;
    Door& operator=(const Door&) = delete;

    /// From here on SIGINT, SIGTERM and SIGHUP are an event and end nothing; a second one of them does again.
    void CatchSignals();

    /// False, with errno, where nobody listens. What was open is shut before.
    [[nodiscard]] bool Open();
    void Shut();
    bool IsOpen() const
    {
        return m_socket.IsOpen();
    }

    /// A failure to send is seen as CLOSED by the next Wait.
    void Ask(std::uint32_t id, std::uint32_t tid, const google::protobuf::Message& payload);

    /// Fills `message` for MESSAGE alone. A shut door waits for a signal or the time.
    Event Wait(Clock::time_point until, IPCMessageEnvelope& message);

    const std::string& Path() const
    {
        return m_socket.Path();
    }

private:
    void TakeSignal();

    LocalSocket m_socket;
    int m_signals = -1;
    IPCFraming::FrameReader m_reader;
};
