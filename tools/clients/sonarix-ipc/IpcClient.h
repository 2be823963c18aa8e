#pragma once

#include "runtime/ipc/IPCFraming.h"
#include "runtime/ipc/IPCMessageEnvelope.h"
#include "tools/clients/options/MessageConnection.h"
#include "tools/clients/options/SignalDescriptor.h"
#include "tools/clients/sonarix-ipc/Command.h"
#include "tools/clients/sonarix-ipc/KnownDevices.h"
#include "tools/clients/sonarix-ipc/RunCommand.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace SonarixPb
{
class Service;
}

/// Sends the requests of one command and interprets the responses. For a single-threaded program: operations block.
class IpcClient final
{
public:
    enum Identifier : std::uint32_t ///< of the messages; the SSDP service has the first two
    {
        DEVICE_CHANGED = 1,
        LIST_DEVICES = 2,
        ADD_SERVICE = 3,
        REMOVE_SERVICE = 4,
        ANNOUNCE = 5,
        UPDATE_SERVICE = 6,
    };

    static constexpr std::chrono::seconds kResponseTimeout{10};

    explicit IpcClient(const Command& command);
    ~IpcClient();
    IpcClient(const IpcClient&) = delete;
    IpcClient& operator=(const IpcClient&) = delete;

    using IpcConnection = MessageConnection<IPCFraming::FrameReader>;

    IpcConnection& Connection()
    {
        return m_connection;
    }

    /// From now on, the first SIGINT, SIGTERM or SIGHUP is the event OTHER of Wait(). The second one has its default
    /// action.
    void CatchSignals();
    LocalSocket::Event Wait(IPCMessageEnvelope& message, LocalSocket::Clock::time_point until);

    /// Send a request and return its transaction number.
    std::uint32_t RequestList();
    std::uint32_t RequestAdd();

    /// Waits for the response to a request and skips other messages. Returns nothing if the connection is lost or the
    /// time is over; this is printed.
    std::optional<IPCMessageEnvelope> WaitForResponse(std::uint32_t tid);

    /// Returns nothing if the response is not a list; `error` then describes it.
    static std::optional<std::vector<Device>> DevicesFromResponse(const IPCMessageEnvelope& response,
                                                                  std::string& error);

    /// Prints and returns the outcome of RequestAdd().
    ExitStatus ReportAdded(const IPCMessageEnvelope& response);

    /// Requests that the service answers only on failure. A list request is sent after each: its response shows that
    /// the service has processed the request.
    ExitStatus Update();
    ExitStatus Remove();
    ExitStatus Announce();

private:
    std::uint32_t Send(Identifier id, const google::protobuf::Message& payload);
    ExitStatus SendUnanswered(Identifier id, const google::protobuf::Message& payload, const std::string& what);
    ExitStatus PrintOutcome(ExitStatus status, const std::string& text) const;

    const Command& m_command;
    std::unique_ptr<SonarixPb::Service> m_service;
    IpcConnection m_connection;
    std::optional<SignalDescriptor> m_signals;
    std::uint32_t m_lastTid = 0;
    std::optional<IPCMessageEnvelope> m_otherResponse; ///< the last response to another request than the awaited one
};

/// Prints one line on standard error.
void PrintError(const std::string& text);
