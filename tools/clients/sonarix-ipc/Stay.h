#pragma once

#include "tools/clients/sonarix-ipc/Command.h"
#include "tools/clients/sonarix-ipc/Conversation.h"
#include "tools/clients/sonarix-ipc/Devices.h"
#include "tools/clients/sonarix-ipc/Door.h"

#include <optional>
#include <string>
#include <vector>

class Talk;

/// A command that stays: a watch, or a record that is published until a signal comes. Finds the service again when it
/// has been away, and prints what changes meanwhile. For one thread, which it blocks.
class Stay final
{
public:
    /// The door of `talk` is open. Both outlive it.
    Stay(const Command& command, Talk& talk);

    ExitStatus Run();

private:
    using Time = Door::Clock::time_point;

    void Ask();
    void Handle(const IPCMessageEnvelope& message);
    void HandleResponse(const IPCMessageEnvelope& message);
    void HandleTime();
    void Reopen();
    void Lost(const std::string& how);
    void Report(const std::vector<DeviceChange>& changes) const;
    ExitStatus End();

    const Command& m_command;
    Talk& m_talk;
    KnownDevices m_known;
    ExitStatus m_added = EXIT_DONE;
    std::string m_lastError; ///< of a list, said already
    Time m_asked;
    std::optional<Time> m_askAt; ///< for the list, or for a service
    std::optional<Time> m_answerUntil;
    std::optional<Time> m_doubtUntil;
};
