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

/// SSDP for many devices. Each device announces itself as root device, by its uuid and by its type, and answers
/// searches for one of these from its own address after a random part of the search's MX (UPnP DA 1.1 section 1.3.3).
/// Task: all calls run on `task`. Owner: must outlive the actions that it puts on `schedule`.
class SsdpResponder final
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
        std::uint64_t searches = 0; ///< received
        std::uint64_t answers = 0;
        std::uint64_t notifies = 0;
    };

    SsdpResponder(NotifyTargetTaskIF* task, Schedule& schedule, Settings settings);
    SsdpResponder(const SsdpResponder&) = delete;
    SsdpResponder& operator=(const SsdpResponder&) = delete;

    /// Returns false and sets `error` on failure.
    bool Open(std::string& error);

    /// Adds a device, which is silent until Announce(). Devices are numbered from 0 in the order of the calls.
    void Add(Kind kind, const Identity& identity, std::uint16_t port);
    /// Starts answering searches. Announces the device after `afterMs`, again one second later, and then each time
    /// before max-age expires.
    void Announce(std::size_t device, unsigned int afterMs);
    /// Stops all messages of the device without byebye.
    void Silence(std::size_t device);
    /// Sends byebye and silences the device.
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
        std::string location; ///< the whole header line; empty if the device sends none
        bool isSilent = true;
        unsigned int silences =
            0; ///< number of silences so far; an action that was scheduled before a silence does nothing
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
    void RunUnlessSilenced(std::size_t device, unsigned int afterMs, const std::function<void(const Device&)>& action);

    Schedule& m_schedule;
    const Settings m_settings;
    IL::RandomSequence m_random;
    std::vector<Device> m_devices;
    Counts m_counts;
    MulticastSocket m_socket;
};
