#include "tools/clients/sonarix-ipc/ContinuousCommand.h"

#include "schemas/SonarixPb.pb.h"
#include "tools/clients/sonarix-ipc/DeviceText.h"
#include "tools/clients/sonarix-ipc/IpcClient.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <iostream>

namespace
{

using std::chrono::seconds;

constexpr seconds kReconnectPause{1}; ///< the kernel has no event for a socket that listens again
// Time that a restarted service needs to find all devices. SSDP: one search period of 30 s, since one search may be
// lost, and the 10 s in which devices answer.
constexpr seconds kUnconfirmedSsdp{45};
constexpr seconds kUnconfirmedMdns{15};

std::string TimeOfDay()
{
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    std::array<char, 16> text{};
    std::strftime(text.data(), text.size(), "%H:%M:%S", localtime_r(&now, &local));
    return text.data();
}

bool IsDue(const std::optional<LocalSocket::Clock::time_point>& time)
{
    return time && *time <= LocalSocket::Clock::now();
}

} // namespace

ContinuousCommand::ContinuousCommand(const Command& command, IpcClient& client)
    : m_command(command)
    , m_client(client)
    , m_known(command.isSsdp ? "guid" : "friendlyname")
{
}

ExitStatus ContinuousCommand::Run()
{
    SendRequest();
    IPCMessageEnvelope message;
    for (;;)
    {
        Time until = LocalSocket::Clock::now() + std::chrono::hours(1);
        for (const auto& time : {m_nextAt, m_responseUntil, m_unconfirmedUntil})
        {
            until = std::min(until, time.value_or(until));
        }
        switch (m_client.Wait(message, until))
        {
        case LocalSocket::Event::RECEIVED:
            Handle(message);
            break;
        case LocalSocket::Event::CLOSED:
            HandleLoss("the service went");
            break;
        case LocalSocket::Event::TIMEOUT:
            HandleTime();
            break;
        case LocalSocket::Event::OTHER:
            return End();
        }
        if (!std::cout && m_command.verb == Command::Verb::WATCH)
        {
            if (errno == EPIPE) // the reader has closed the pipe
            {
                std::cout.clear();
            }
            return EXIT_DONE;
        }
    }
}

void ContinuousCommand::SendRequest()
{
    m_requestedAt = LocalSocket::Clock::now();
    m_nextAt.reset();
    m_responseUntil = m_requestedAt + IpcClient::kResponseTimeout;
    if (m_command.verb == Command::Verb::ADD)
    {
        m_client.RequestAdd();
    }
    else
    {
        m_client.RequestList();
    }
}

void ContinuousCommand::Handle(const IPCMessageEnvelope& message)
{
    if (message->kind() != IPCMessageEnvelopeBase::NOTIFICATION)
    {
        HandleResponse(message);
        return;
    }
    SonarixPb::DeviceDiscovery report;
    if (message->id() == IpcClient::DEVICE_CHANGED && message.GetPayload(report))
    {
        Print(m_known.ApplyReport(report.state() == SonarixPb::ONLINE, DeviceFromInfo(report.device())));
    }
}

void ContinuousCommand::HandleResponse(const IPCMessageEnvelope& message)
{
    m_responseUntil.reset();
    if (m_command.verb == Command::Verb::ADD)
    {
        m_added = m_client.ReportAdded(message);
        return;
    }
    std::string error;
    if (const auto devices = IpcClient::DevicesFromResponse(message, error))
    {
        Print(m_command.isSsdp ? m_known.ApplyPartialList(*devices) : m_known.ApplyList(*devices));
    }
    if (error != m_lastError && !error.empty())
    {
        PrintError(error);
    }
    m_lastError = error;
    if (!m_command.isSsdp)
    {
        m_nextAt = m_requestedAt + m_command.every;
    }
}

void ContinuousCommand::HandleTime()
{
    if (!m_client.Connection().Socket().IsOpen())
    {
        Reconnect();
    }
    else if (IsDue(m_responseUntil))
    {
        m_client.Connection().Close();
        HandleLoss("the service does not answer");
    }
    else if (IsDue(m_unconfirmedUntil))
    {
        m_unconfirmedUntil.reset();
        Print(m_known.RemoveUnconfirmed());
    }
    else if (IsDue(m_nextAt))
    {
        SendRequest();
    }
}

void ContinuousCommand::Reconnect()
{
    if (!m_client.Connection().Open())
    {
        m_nextAt = LocalSocket::Clock::now() + kReconnectPause;
        return;
    }
    PrintError("the service is back");
    m_unconfirmedUntil = LocalSocket::Clock::now() + (m_command.isSsdp ? kUnconfirmedSsdp : kUnconfirmedMdns);
    SendRequest();
}

void ContinuousCommand::HandleLoss(const std::string& reason)
{
    PrintError(reason + "; going on as soon as it is back");
    m_known.MarkUnconfirmed();
    m_responseUntil.reset();
    m_unconfirmedUntil.reset();
    m_nextAt = LocalSocket::Clock::now() + kReconnectPause;
}

void ContinuousCommand::Print(const std::vector<DeviceChange>& changes) const
{
    for (const DeviceChange& change : changes)
    {
        std::cout << (m_command.isJson ? ChangeJson(change) : TimeOfDay() + " " + ChangeText(change)) << std::endl;
    }
}

ExitStatus ContinuousCommand::End()
{
    if (!m_client.Connection().Socket().IsOpen())
    {
        PrintError("the service is away, and the record with it");
        return EXIT_NO_SERVICE;
    }
    const ExitStatus removed = m_client.Remove();
    return removed == EXIT_DONE ? m_added : removed;
}
