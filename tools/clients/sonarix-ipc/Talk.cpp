#include "tools/clients/sonarix-ipc/Talk.h"

#include "runtime/SystemUtils.h"
#include "schemas/SonarixPb.pb.h"
#include "tools/clients/options/Printable.h"
#include "tools/clients/sonarix-ipc/Print.h"

#include <nlohmann/json.hpp>

#include <iostream>

namespace
{

constexpr const char* kRendererType = "_kova-lanyard._tcp";

std::string SocketPath(const Command& command)
{
    return SystemUtils::RunDir() + (command.isSsdp ? "/SonarixSsdpService" : "/SonarixMdnsService");
}

std::string Quoted(const std::string& text)
{
    return "\"" + Printable(text) + "\"";
}

SonarixPb::Service ServiceOf(const Command& command)
{
    SonarixPb::Service service;
    SonarixPb::ServiceId& id = *service.mutable_id();
    id.set_interface(command.interface);
    id.set_protocol(static_cast<SonarixPb::Protocol>(command.protocol));
    id.set_name(command.name);
    id.set_type(command.type);
    id.set_domain("local");
    service.set_address(command.port);
    for (const auto& [key, value] : command.txt)
    {
        SonarixPb::ServiceRecords& record = *service.add_txt();
        record.set_key(key);
        record.set_value(value);
    }
    return service;
}

template <typename Message>
bool IsResponse(const IPCMessageEnvelope& answer, Message& message)
{
    return answer->kind() == IPCMessageEnvelopeBase::RESPONSE &&
           answer->payload_type() == message.GetDescriptor()->name() && answer.GetPayload(message);
}

std::string ErrorOf(const IPCMessageEnvelope& answer)
{
    SonarixPb::DeviceDiscoveryError error;
    if (answer->kind() == IPCMessageEnvelopeBase::REJECT)
    {
        return "that it rejects the request";
    }
    return IsResponse(answer, error) ? Quoted(error.message()) : "what is no answer to that";
}

} // namespace

Talk::Talk(const Command& command)
    : m_command(command)
    , m_service(std::make_unique<SonarixPb::Service>(ServiceOf(command)))
    , m_door(SocketPath(command))
{
}

Talk::~Talk() = default;

std::uint32_t Talk::Ask(Identifier id, const google::protobuf::Message& payload)
{
    m_door.Ask(id, ++m_lastTid, payload);
    return m_lastTid;
}

std::uint32_t Talk::AskForList()
{
    if (m_command.isSsdp)
    {
        return Ask(LIST_DEVICES, SonarixPb::DiscoveredDeviceList());
    }
    SonarixPb::ServiceId id;
    id.set_type(m_command.type.empty() ? kRendererType : m_command.type);
    return Ask(LIST_DEVICES, id);
}

std::uint32_t Talk::AskToAdd()
{
    return Ask(ADD_SERVICE, *m_service);
}

std::optional<IPCMessageEnvelope> Talk::Answer(std::uint32_t tid)
{
    const auto until = Door::Clock::now() + kAnswerTime;
    IPCMessageEnvelope message;
    m_earlier.reset();
    for (;;)
    {
        switch (m_door.Wait(until, message))
        {
        case Door::MESSAGE:
            if (message->kind() == IPCMessageEnvelopeBase::NOTIFICATION)
            {
                break;
            }
            if (message->tid() == tid)
            {
                return message;
            }
            m_earlier = message;
            break;
        case Door::CLOSED:
            Say("the service went before it answered");
            return std::nullopt;
        case Door::TIME:
            Say("the service has not answered for " + std::to_string(kAnswerTime.count()) + " s");
            return std::nullopt;
        case Door::SIGNAL: // the second one ends the program
            break;
        }
    }
}

std::optional<std::vector<Device>> Talk::ReadList(const IPCMessageEnvelope& answer, std::string& error)
{
    SonarixPb::DiscoveredDeviceList list;
    if (!IsResponse(answer, list))
    {
        error = "the service answers " + ErrorOf(answer);
        return std::nullopt;
    }
    std::vector<Device> devices;
    for (const SonarixPb::DeviceInfo& info : list.device())
    {
        devices.push_back(DescribeDevice(info));
    }
    return devices;
}

ExitStatus Talk::ReadAdded(const IPCMessageEnvelope& answer)
{
    const std::string record =
        Quoted(m_command.name) + " as " + m_command.type + ", port " + std::to_string(m_command.port);
    SonarixPb::DiscoveryServiceVoid done;
    if (IsResponse(answer, done))
    {
        return Outcome(EXIT_DONE, "the service publishes " + record);
    }
    const std::string text = "the service does not publish " + record + ": it answers " + ErrorOf(answer);
    return answer->kind() == IPCMessageEnvelopeBase::REJECT
               ? Outcome(EXIT_ERROR_ANSWER, text)
               : Outcome(EXIT_NOT_YET, text + ", as it does while the network is down. It keeps the record, to "
                                              "publish it once the network is up and the product has announced itself");
}

ExitStatus Talk::Update()
{
    return Tell(UPDATE_SERVICE, *m_service, "the new TXT of " + Quoted(m_command.name));
}

ExitStatus Talk::Remove()
{
    return Tell(REMOVE_SERVICE, *m_service, "the removal of " + m_command.type);
}

ExitStatus Talk::Announce()
{
    return Tell(ANNOUNCE, *m_command.device, "the announcement of " + Quoted(m_command.name));
}

ExitStatus Talk::Tell(Identifier id, const google::protobuf::Message& payload, const std::string& what)
{
    const std::uint32_t tid = Ask(id, payload);
    const auto list = Answer(AskForList());
    if (!list)
    {
        return EXIT_NO_SERVICE;
    }
    if (m_earlier && (*m_earlier)->tid() == tid)
    {
        const std::string text = "the service answers " + ErrorOf(*m_earlier) + " to " + what;
        return (*m_earlier)->kind() == IPCMessageEnvelopeBase::REJECT
                   ? Outcome(EXIT_ERROR_ANSWER, text)
                   : Outcome(EXIT_NOT_YET, text + ": either it has no record of that type under that name, or "
                                                  "the network is down, and it keeps the record for when it is up");
    }
    std::string error;
    if (!ReadList(*list, error))
    {
        return Outcome(EXIT_ERROR_ANSWER, error + " to a list, and does not answer " + what);
    }
    return Outcome(EXIT_DONE, "the service has taken " + what + ", which it does not answer");
}

ExitStatus Talk::Outcome(ExitStatus status, const std::string& text) const
{
    if (status == EXIT_ERROR_ANSWER)
    {
        Say(text);
    }
    else if (m_command.isJson)
    {
        std::cout << nlohmann::ordered_json{{"outcome", status == EXIT_DONE ? "done" : "not yet"}, {"message", text}}
                  << std::endl;
    }
    else
    {
        std::cout << text << std::endl;
    }
    return status;
}

void Say(const std::string& text)
{
    std::cerr << "sonarix-ipc: " << text << std::endl;
}
