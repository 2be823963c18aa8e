#pragma once

#include "tools/clients/sonarix-ipc/Command.h"
#include "tools/clients/sonarix-ipc/Conversation.h"
#include "tools/clients/sonarix-ipc/Devices.h"
#include "tools/clients/sonarix-ipc/Door.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace SonarixPb
{
class Service;
}

/// The requests of one command and the service's answers to them, in words. For one thread, which it blocks.
class Talk final
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

    static constexpr std::chrono::seconds kAnswerTime{10};

    explicit Talk(const Command& command);
    ~Talk();
    Talk(const Talk&) = delete;
    Talk& operator=(const Talk&) = delete;

    Door& TheDoor()
    {
        return m_door;
    }

    /// Sends a request; its number.
    std::uint32_t AskForList();
    std::uint32_t AskToAdd();

    /// The response to that request; what comes besides is left out. Nothing where none comes in time, or the service
    /// goes, which then has been said.
    std::optional<IPCMessageEnvelope> Answer(std::uint32_t tid);

    /// The devices of a list; nothing, with what was answered instead in `error`.
    static std::optional<std::vector<Device>> ReadList(const IPCMessageEnvelope& answer, std::string& error);

    /// What the answer to an addition comes to.
    ExitStatus ReadAdded(const IPCMessageEnvelope& answer);

    /// What the service answers by silence, or by a failure alone: asks for a list behind it, with whose answer it
    /// has been carried out.
    ExitStatus Update();
    ExitStatus Remove();
    ExitStatus Announce();

private:
    std::uint32_t Ask(Identifier id, const google::protobuf::Message& payload);
    ExitStatus Tell(Identifier id, const google::protobuf::Message& payload, const std::string& what);
    ExitStatus Outcome(ExitStatus status, const std::string& text) const;

    const Command& m_command;
    std::unique_ptr<SonarixPb::Service> m_service;
    Door m_door;
    std::uint32_t m_lastTid = 0;
    std::optional<IPCMessageEnvelope> m_earlier; ///< the last answer to a request before the one waited for
};

/// A line on standard error.
void Say(const std::string& text);
