#pragma once

#include "runtime/ipc/IPCMessageEnvelope.h"
#include "tools/clients/options/LocalSocket.h"
#include "tools/clients/sonarix-ipc/Command.h"
#include "tools/clients/sonarix-ipc/KnownDevices.h"
#include "tools/clients/sonarix-ipc/RunCommand.h"

#include <optional>
#include <string>
#include <vector>

class IpcClient;

/// A command without an end of its own: a watch, or a record that is published until a signal. Reconnects to a
/// restarted service and prints the changes. For a single-threaded program: Run() blocks.
class ContinuousCommand final
{
public:
    /// `client` is connected. Both must outlive this object.
    ContinuousCommand(const Command& command, IpcClient& client);

    ExitStatus Run();

private:
    using Time = LocalSocket::Clock::time_point;

    void SendRequest();
    void Handle(const IPCMessageEnvelope& message);
    void HandleResponse(const IPCMessageEnvelope& message);
    void HandleTime();
    void Reconnect();
    void HandleLoss(const std::string& reason);
    void Print(const std::vector<DeviceChange>& changes) const;
    ExitStatus End();

    const Command& m_command;
    IpcClient& m_client;
    KnownDevices m_known;
    ExitStatus m_added = EXIT_DONE;
    std::string m_lastError; ///< the last printed error of a list
    Time m_requestedAt;
    std::optional<Time> m_nextAt; ///< of the next list request or connection attempt
    std::optional<Time> m_responseUntil;
    std::optional<Time> m_unconfirmedUntil;
};
