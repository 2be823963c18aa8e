#include "tools/clients/sonarix-ipc/Stay.h"

#include "schemas/SonarixPb.pb.h"
#include "tools/clients/sonarix-ipc/Print.h"
#include "tools/clients/sonarix-ipc/Talk.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <iostream>

namespace
{

using std::chrono::seconds;

constexpr seconds kReopenPause{1}; ///< a socket's return is no event that a client can wait for
/// After its return the service finds everything anew: by SSDP with a search, of which one may be missed.
constexpr seconds kDoubtSsdp{45};
constexpr seconds kDoubtMdns{15};

std::string TimeOfDay()
{
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    std::array<char, 16> text{};
    std::strftime(text.data(), text.size(), "%H:%M:%S", localtime_r(&now, &local));
    return text.data();
}

bool IsDue(const std::optional<Door::Clock::time_point>& time)
{
    return time && *time <= Door::Clock::now();
}

} // namespace

Stay::Stay(const Command& command, Talk& talk)
    : m_command(command)
    , m_talk(talk)
    , m_known(command.isSsdp ? "guid" : "friendlyname")
{
}

ExitStatus Stay::Run()
{
    Ask();
    IPCMessageEnvelope message;
    for (;;)
    {
        Time until = Door::Clock::now() + std::chrono::hours(1);
        for (const auto& time : {m_askAt, m_answerUntil, m_doubtUntil})
        {
            until = std::min(until, time.value_or(until));
        }
        switch (m_talk.TheDoor().Wait(until, message))
        {
        case Door::MESSAGE:
            Handle(message);
            break;
        case Door::CLOSED:
            Lost("the service went");
            break;
        case Door::TIME:
            HandleTime();
            break;
        case Door::SIGNAL:
            return End();
        }
        if (!std::cout && m_command.verb == Command::Verb::WATCH)
        {
            if (errno == EPIPE) // the reader has seen enough
            {
                std::cout.clear();
            }
            return EXIT_DONE;
        }
    }
}

void Stay::Ask()
{
    m_asked = Door::Clock::now();
    m_askAt.reset();
    m_answerUntil = m_asked + Talk::kAnswerTime;
    if (m_command.verb == Command::Verb::ADD)
    {
        m_talk.AskToAdd();
    }
    else
    {
        m_talk.AskForList();
    }
}

void Stay::Handle(const IPCMessageEnvelope& message)
{
    if (message->kind() != IPCMessageEnvelopeBase::NOTIFICATION)
    {
        HandleResponse(message);
        return;
    }
    SonarixPb::DeviceDiscovery report;
    if (message->id() == Talk::DEVICE_CHANGED && message.GetPayload(report))
    {
        Report(m_known.TakeReport(report.state() == SonarixPb::ONLINE, DescribeDevice(report.device())));
    }
}

void Stay::HandleResponse(const IPCMessageEnvelope& message)
{
    m_answerUntil.reset();
    if (m_command.verb == Command::Verb::ADD)
    {
        m_added = m_talk.ReadAdded(message);
        return;
    }
    std::string error;
    if (const auto devices = Talk::ReadList(message, error))
    {
        Report(m_command.isSsdp ? m_known.TakePartOfList(*devices) : m_known.TakeList(*devices));
    }
    if (error != m_lastError && !error.empty())
    {
        Say(error);
    }
    m_lastError = error;
    if (!m_command.isSsdp)
    {
        m_askAt = m_asked + m_command.every;
    }
}

void Stay::HandleTime()
{
    if (!m_talk.TheDoor().IsOpen())
    {
        Reopen();
    }
    else if (IsDue(m_answerUntil))
    {
        m_talk.TheDoor().Shut();
        Lost("the service does not answer");
    }
    else if (IsDue(m_doubtUntil))
    {
        m_doubtUntil.reset();
        Report(m_known.DropDoubted());
    }
    else if (IsDue(m_askAt))
    {
        Ask();
    }
}

void Stay::Reopen()
{
    if (!m_talk.TheDoor().Open())
    {
        m_askAt = Door::Clock::now() + kReopenPause;
        return;
    }
    Say("the service is back");
    m_doubtUntil = Door::Clock::now() + (m_command.isSsdp ? kDoubtSsdp : kDoubtMdns);
    Ask();
}

void Stay::Lost(const std::string& how)
{
    Say(how + "; going on as soon as it is back");
    m_known.Doubt();
    m_answerUntil.reset();
    m_doubtUntil.reset();
    m_askAt = Door::Clock::now() + kReopenPause;
}

void Stay::Report(const std::vector<DeviceChange>& changes) const
{
    for (const DeviceChange& change : changes)
    {
        std::cout << (m_command.isJson ? ChangeJson(change) : TimeOfDay() + " " + ChangeText(change)) << std::endl;
    }
}

ExitStatus Stay::End()
{
    if (!m_talk.TheDoor().IsOpen())
    {
        Say("the service is away, and the record with it");
        return EXIT_NO_SERVICE;
    }
    const ExitStatus removed = m_talk.Remove();
    return removed == EXIT_DONE ? m_added : removed;
}
