#pragma once

#include "runtime/engine/RandomSequence.h"
#include "tools/simulated/Identity.h"
#include "tools/simulated/MulticastSocket.h"
#include "tools/simulated/upnp-devices/Kinds.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class NotifyTargetTaskIF;
class Schedule;

/// The SSDP side of many devices, as if each had one of its own: each announces itself as root device, by its uuid and
/// by its type, and answers each search for one of these from its own address, after a random part of the search's MX.
/// Task: everything on the one given. Owner: outlives what it has put on `schedule`, or neither runs any more.
class SsdpSpeaker final
{
public:
    struct Settings
    {
        std::string interface;
        unsigned int maxAgeSec = 1800;
        std::uint64_t seed = 1;
    };
    struct Counts
    {
        std::uint64_t searches = 0; ///< heard
        std::uint64_t answers = 0;
        std::uint64_t notifies = 0;
    };

    SsdpSpeaker(NotifyTargetTaskIF* task, Schedule& schedule, Settings settings);
    SsdpSpeaker(const SsdpSpeaker&) = delete;
    SsdpSpeaker& operator=(const SsdpSpeaker&) = delete;

    /// False, with the reason in `error`.
    bool Open(std::string& error);

    /// A device that is silent until Announce; devices are known by the order of their adding, from 0.
    void Add(Kind kind, const Identity& identity, std::uint16_t port);
    /// From now on it answers; it speaks by itself after the time, again a second later, and then in time before what
    /// it has said expires.
    void Announce(std::size_t device, unsigned int afterMs);
    /// From now on it neither answers nor speaks.
    void Silence(std::size_t device);
    /// Silence, having said so.
    void SayGoodbye(std::size_t device);

    bool IsSilent(std::size_t device) const
    {
        return m_devices[device].isSilent;
    }
    const Counts& GetCounts() const
    {
        return m_counts;
    }

private:
    struct Device
    {
        Kind kind;
        Identity identity;
        std::string location; ///< with the name of its header; empty where it has none
        bool isSilent = true;
        unsigned int life = 0; ///< counts silences: what was planned before one does not happen
    };
    struct Search
    {
        std::string target;
        unsigned int mxSec = 0;
    };

    static bool Parse(const std::string& text, Search& search);
    void HandleDatagram(const std::uint8_t* bytes, std::size_t size, const Endpoint& sender);
    std::vector<std::string> Targets(const Device& device) const;
    void PlanAnswer(std::size_t device, const std::string& target, const Search& search, const Endpoint& sender);
    void PlanAnnouncement(std::size_t device, unsigned int afterMs, unsigned int number);
    void Flap(std::size_t device, std::int64_t dueMs);
    void Notify(const Device& device, const std::string& target, const std::string& subType);
    void Send(const Endpoint& receiver, const std::string& text, std::uint32_t source);
    void InLife(std::size_t device, unsigned int afterMs, const std::function<void(const Device&)>& action);

    Schedule& m_schedule;
    const Settings m_settings;
    IL::RandomSequence m_random;
    std::vector<Device> m_devices;
    Counts m_counts;
    MulticastSocket m_socket;
};
