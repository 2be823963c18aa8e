#include "tests/simulation/Scenario.h"

#include "tests/simulation/World.h"

#include <chrono>
#include <vector>

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;

namespace
{

/// Time after which all events have had their effect: longer than the slowest gateway check, response and resolve.
constexpr minutes kSettled{5};

bool IsCrowd(std::uint64_t seed)
{
    return seed % 20 == 0;
}

milliseconds CheckPeriod(std::uint64_t seed)
{
    const std::vector<seconds> periods = IsCrowd(seed) ? std::vector{seconds(30), seconds(60)}
                                                       : std::vector{seconds(5), seconds(15), seconds(30), seconds(60)};
    return periods[seed / 20 % periods.size()];
}

} // namespace

/// Generates the events.
class Scenario::Script
{
public:
    Script(World& world, std::uint64_t seed)
        : m_world(world)
        , m_isCrowd(IsCrowd(seed))
    {
        m_world.devices.resize(m_isCrowd ? 300 : 30);
        for (Device& device : m_world.devices)
        {
            device.guid = NewName("g");
            device.name = NewName("Device ");
            device.address = NewAddress();
            device.isTalkative = !OneIn(3);
            MakeSsdp(device);
            device.clockName = OneIn(m_isCrowd ? 100 : 15) ? OneIn(3) ? Any().name : device.name : "";
            if (OneIn(30))
            {
                device.guid = Any().guid; // two devices with the same guid
            }
            if (OneIn(60))
            {
                device.guid = OneIn(2) ? Model::kOwn : "";
            }
            if (OneIn(40) && !device.ecosystem.empty())
            {
                device.ecosystem = "another";
            }
        }
    }

    /// Events before the first network status. The service holds reports back until then.
    void Begin()
    {
        for (Device& device : m_world.devices)
        {
            if (!OneIn(3))
            {
                Appear(device); // the mDNS daemon knows it before the service starts
            }
        }
        m_world.StartService();
        Later(Upto(5000), [this] { OneIn(3) ? m_world.FailFirstStatus() : ChangeNetwork(); });
        Burst();
        Later(Upto(1000), [this] { SetUp(); });
    }

    void Burst()
    {
        const std::uint64_t spread = OneIn(2) ? 2'000 : 60'000;
        for (std::uint64_t left = 1 + Random(OneIn(4) ? 15 : 4); left > 0; --left)
        {
            Later(Upto(spread), [this] { Happen(); });
        }
        m_world.simulation.RunFor(milliseconds(spread));
    }

    void BeQuiet()
    {
        while (World::NowMs() < m_world.lastChangeMs + milliseconds(kSettled).count())
        {
            m_world.simulation.RunFor(kSettled);
        }
        m_world.Compare();
        if (!m_world.Failure().empty())
        {
            return;
        }
        milliseconds pause = Upto(600'000);
        pause =
            OneIn(3) ? minutes(20) + Upto(1'500'000) : pause;   // around the time at which an absent product is removed
        pause = OneIn(8) ? hours(4) + Upto(12'000'000) : pause; // around the next refresh
        m_world.SetMulticast(
            OneIn(pause < minutes(20) ? 3 : 20)); // real duration of each search, so rarely in long pauses
        m_world.simulation.RunFor(pause);
        m_world.SetMulticast(true);
        if (OneIn(8))
        {
            HangDescriptions(); // while lost devices are found again
        }
    }

private:
    void Happen()
    {
        using Event = void (Script::*)();
        static const std::vector<std::pair<unsigned, Event>> s_events{
            {20, &Script::ComeOrGo},      {6, &Script::Rename},          {4, &Script::ChangeAddress},
            {3, &Script::ChangeGuid},     {8, &Script::ChangeAnswers},   {4, &Script::ChangeMute},
            {6, &Script::ChangeLocation}, {6, &Script::ChangeDescribes}, {3, &Script::ChangeHearing},
            {1, &Script::ChangeLink},     {4, &Script::SpeakAgain},      {4, &Script::Children},
            {3, &Script::Advertise},      {2, &Script::RestartDaemon},   {2, &Script::RestartGateway},
            {1, &Script::PowerCut},
        };
        if (OneIn(m_isCrowd ? 100 : 12))
        {
            ChangeNetwork();
            return;
        }
        std::uint64_t chance = Random(77);
        for (const auto& [weight, event] : s_events)
        {
            if (chance < weight)
            {
                (this->*event)();
                return;
            }
            chance -= weight;
        }
    }

    void Appear(Device& device)
    {
        m_world.Say(device.name + " appears: " + device.guid);
        device.isThere = true;
        m_world.Announce(device);
        m_world.CheckSoon(device.guid);
        Later(Upto(500), [this, &device] { m_world.AnnounceBySsdp(device); });
    }
    void Vanish(Device& device, bool saysGoodbye)
    {
        m_world.Say(device.name + (saysGoodbye ? " says goodbye" : " falls silent"));
        device.isThere = false;
        if (saysGoodbye)
        {
            m_world.Withdraw(device);
            Later(Upto(500), [this, guid = device.guid] { m_world.SayByeBySsdp(guid); });
        }
        m_world.CheckSoon(device.guid);
    }

    void ComeOrGo()
    {
        Device& device = Any();
        if (device.isThere)
        {
            Vanish(device, OneIn(2));
        }
        else if (OneIn(5))
        {
            Vanish(device, true); // its records expire
        }
        else
        {
            if (OneIn(2))
            {
                m_world.Withdraw(device); // otherwise it returns before its records expire, so browsers report nothing
            }
            Later(Upto(3000), [this, &device] { Appear(device); });
        }
    }
    void Rename()
    {
        Device& device = Any();
        m_world.Say(device.name + " is renamed");
        const bool isAnnounced = m_world.IsAnnounced(device);
        m_world.Withdraw(device);
        device.name = NewName("Device ");
        device.clockName = device.clockName.empty() ? "" : device.name;
        ++device.version;
        if (isAnnounced)
        {
            Later(Upto(100), [this, &device] { m_world.Announce(device); });
        }
        m_world.Push(device.guid);
    }
    void ChangeAddress()
    {
        Device& device = Any();
        device.address = NewAddress();
        device.location = NewLocation(device);
        m_world.Say(device.name + " moves to " + device.address);
        Later(Upto(2000), [this, &device] { m_world.AnnounceBySsdp(device); });
        if (m_world.IsAnnounced(device))
        {
            m_world.Announce(device); // browsers do not report a changed address
        }
        if (OneIn(2))
        {
            m_world.Push(device.guid);
        }
    }
    void ChangeGuid()
    {
        Device& device = Any();
        Vanish(device, !OneIn(4)); // otherwise the same instance has another guid
        device.guid = NewName("g");
        Later(Upto(3000), [this, &device] { Appear(device); });
    }
    void ChangeLocation()
    {
        Device& device = AnyBySsdp();
        device.location = NewLocation(device);
        ++device.version;
        m_world.Say(device.name + " is described at " + device.location);
        Later(Upto(2000), [this, &device] { m_world.AnnounceBySsdp(device); });
    }
    void ChangeDescribes()
    {
        using Describes = Device::Describes;
        static const std::vector<Describes> s_describes{
            Describes::RIGHT,    Describes::RIGHT,   Describes::RIGHT,   Describes::LATE,      Describes::BUSY,
            Describes::ANYTHING, Describes::GARBAGE, Describes::NOTHING, Describes::NOT_FOUND, Describes::NEVER};
        Device& device = AnyBySsdp();
        device.describes = s_describes[Random(s_describes.size())];
        m_world.Say(device.name + " is described by " + std::to_string(static_cast<int>(device.describes)));
        if (OneIn(2))
        {
            ChangeLocation();
        }
    }
    void ChangeHearing()
    {
        Device& device = AnyBySsdp();
        device.isFaint = !device.isFaint && OneIn(2);
        m_world.Say(device.name + (device.isFaint ? " is faint" : " is heard well"));
    }
    void ChangeLink()
    {
        m_world.ChangeLinkUnsaid();
    }
    void HangDescriptions()
    {
        m_world.SetDescriptionsHanging(true);
        Later(seconds(30) + Upto(30'000), [this] { m_world.SetDescriptionsHanging(false); });
    }
    void ChangeAnswers()
    {
        using Answers = Device::Answers;
        static const std::vector<Answers> s_answers{Answers::RIGHT, Answers::RIGHT,     Answers::RIGHT,
                                                    Answers::LATE,  Answers::ERROR,     Answers::GARBAGE,
                                                    Answers::NEVER, Answers::AS_ANOTHER};
        Device& device = Any();
        if (device.ecosystem.empty())
        {
            return;
        }
        device.answers = s_answers[Random(s_answers.size())];
        device.claims = OneIn(6) ? Model::kOwn : OneIn(3) ? NewName("g") : Any().guid;
        ++device.version;
        m_world.Say(device.name + " answers by " + std::to_string(static_cast<int>(device.answers)));
        m_world.CheckSoon(device.guid);
        m_world.Push(device.guid);
    }
    void ChangeMute()
    {
        Device& device = Any();
        m_world.Say(device.name + " can't be resolved for a while");
        m_world.Mute(device);
        Later(Upto(200'000), [this, &device] { m_world.IsAnnounced(device) ? m_world.Announce(device) : void(); });
    }
    void SpeakAgain()
    {
        const Device& device = Any();
        m_world.Say(device.name + " is reported again");
        m_world.ReportAgain(device, OneIn(3));
        Later(Upto(100), [this, &device] { m_world.AnnounceBySsdp(device); });
    }
    void Children()
    {
        const std::string guid = OneIn(20) ? Model::kOwn : OneIn(2) ? Any().guid : "c" + std::to_string(Random(4));
        OneIn(3) ? m_world.DeleteChild(guid) : m_world.PostChild(guid, NewName("Child "), OneIn(2));
    }
    void Advertise()
    {
        m_world.Advertise(OneIn(3) ? Any().name : NewName("Own "));
    }
    void RestartDaemon()
    {
        if (m_world.IsDaemonRunning() && (!m_isCrowd || OneIn(3)))
        {
            m_world.SetDaemon(false);
            Later(Upto(OneIn(2) ? 1000 : 40'000), [this] { m_world.SetDaemon(true); });
        }
    }
    void RestartGateway()
    {
        if (!m_isCrowd || OneIn(3))
        {
            m_world.RestartGateway(Upto(5000));
        }
    }
    void PowerCut()
    {
        const std::size_t first = Random(m_world.devices.size());
        for (std::size_t i = first; i < std::min(first + m_world.devices.size() / 3, m_world.devices.size()); ++i)
        {
            Vanish(m_world.devices[i], false);
            Later(seconds(20) + Upto(60'000), [this, i] { Appear(m_world.devices[i]); });
        }
    }
    void ChangeNetwork()
    {
        const std::string address = OneIn(4) ? NewAddress() : "10.0.0.1";
        switch (Random(6))
        {
        case 0:
            SetStatus(false, "", true);
            break;
        case 1:
            SetStatus(false, address, true); // access point of the setup mode
            break;
        case 2:
            SetStatus(true, "", true); // no address yet
            break;
        case 3:
            SetStatus(true, address, false);
            break;
        default:
            SetUp();
            return;
        }
        if (!OneIn(5))
        {
            Later(OneIn(2) ? Upto(2000) : Upto(2'000'000), [this] { SetUp(); });
        }
    }
    void SetUp()
    {
        SetStatus(true, OneIn(4) ? NewAddress() : "10.0.0.1", true);
    }
    void SetStatus(bool isPrimaryUp, const std::string& address, bool hasInterface)
    {
        m_world.SetStatus(isPrimaryUp, address, hasInterface);
        if (isPrimaryUp && !OneIn(4))
        {
            Later(Upto(1000), [this] { Advertise(); }); // like the hub service each time the network comes up
        }
    }

    void Later(milliseconds delay, const std::function<void()>& event)
    {
        m_world.At(delay,
                   [this, event]
                   {
                       m_world.lastChangeMs = World::NowMs();
                       event();
                   });
    }
    std::uint64_t Random(std::uint64_t bound)
    {
        return m_world.simulation.Random(bound);
    }
    bool OneIn(std::uint64_t bound)
    {
        return Random(bound) == 0;
    }
    milliseconds Upto(std::uint64_t ms)
    {
        return milliseconds(1 + Random(ms));
    }
    Device& Any()
    {
        return m_world.devices[Random(m_world.devices.size())];
    }
    /// Returns the first device with SSDP after a random index.
    Device& AnyBySsdp()
    {
        const std::size_t first = Random(m_world.devices.size());
        for (std::size_t i = 0; i < m_world.devices.size(); ++i)
        {
            Device& device = m_world.devices[(first + i) % m_world.devices.size()];
            if (device.speaksSsdp)
            {
                return device;
            }
        }
        return Any();
    }
    /// SSDP properties: products with mDNS and SSDP, some with SSDP only, and renderers of other manufacturers.
    void MakeSsdp(Device& device)
    {
        const std::uint64_t chance = Random(m_isCrowd ? 240 : 40);
        const std::uint64_t others = m_isCrowd ? 20 : 3; // with 300 devices enough renderers to queue fetches
        device.speaksSsdp = chance < others + 10;
        device.speaksMdns = chance >= others + 3;
        device.location = NewLocation(device);
        if (chance < others)
        {
            device.ecosystem = "";
            device.answers = Device::Answers::ERROR;
        }
    }
    std::string NewLocation(const Device& device)
    {
        const std::string path = "/" + NewName("d") + ".xml";
        const std::string port = OneIn(8) ? "" : ":8200";
        return OneIn(50) ? "" : "http://" + (OneIn(50) ? "player.local" : device.address) + port + path;
    }
    std::string NewName(const std::string& prefix)
    {
        return prefix + std::to_string(++m_names);
    }
    std::string NewAddress()
    {
        return "10.0." + std::to_string(1 + Random(200)) + "." + std::to_string(1 + Random(200));
    }

    World& m_world;
    const bool m_isCrowd;
    unsigned m_names = 0;
};

Scenario::Scenario(std::uint64_t seed)
    : m_world(std::make_unique<World>(seed, seed % 7 == 3, CheckPeriod(seed)))
    , m_script(std::make_unique<Script>(*m_world, seed))
{
}

Scenario::~Scenario() = default;

std::string Scenario::Run(int days)
{
    const auto isOver = [this, end = IL::Engine::Current().NowMs() + milliseconds(hours(24 * days)).count()]
    { return IL::Engine::Current().NowMs() >= end || !m_world->Failure().empty(); };
    m_script->Begin();
    while (!isOver())
    {
        m_script->Burst();
        m_script->BeQuiet();
    }
    return m_world->Failure();
}

std::uint64_t Scenario::Events() const
{
    return m_world->simulation.Events();
}

std::size_t Scenario::Comparisons() const
{
    return m_world->Comparisons();
}
