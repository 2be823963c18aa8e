#include "tools/clients/sonarix-ipc/IpcClient.h"

#include "runtime/SystemUtils.h"
#include "schemas/SonarixPb.pb.h"
#include "tools/clients/options/Printable.h"

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

SonarixPb::Service ServiceFromCommand(const Command& command)
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

std::string DescribeError(const IPCMessageEnvelope& answer)
{
    SonarixPb::DeviceDiscoveryError error;
    if (answer->kind() == IPCMessageEnvelopeBase::REJECT)
    {
        return "that it rejects the request";
    }
    return IsResponse(answer, error) ? Quoted(error.message()) : "with an unexpected message";
}

} // namespace

IpcClient::IpcClient(const Command& command)
    : m_command(command)
    , m_service(std::make_unique<SonarixPb::Service>(ServiceFromCommand(command)))
    , m_connection(SocketPath(command))
{
}

IpcClient::~IpcClient() = default;

void IpcClient::CatchSignals()
{
    m_signals.emplace({SIGINT, SIGTERM, SIGHUP});
}

LocalSocket::Event IpcClient::Wait(IPCMessageEnvelope& message, LocalSocket::Clock::time_point until)
{
    const auto event = m_connection.Wait(message, m_signals ? m_signals->Descriptor() : -1, until);
    if (event == LocalSocket::Event::OTHER && m_signals->Take() != 0)
    {
        m_signals->Unblock();
    }
    return event;
}

std::uint32_t IpcClient::Send(Identifier id, const google::protobuf::Message& payload)
{
    IPCMessageEnvelope envelope;
    envelope.SetPayload(payload);
    envelope->set_id(id);
    envelope->set_tid(++m_lastTid);
    envelope->set_kind(IPCMessageEnvelopeBase::REQUEST);
    std::string frame;
    if (IPCFraming::AppendFrame(frame, envelope)) // a command line is shorter than the frame limit
    {
        m_connection.Send(frame);
    }
    return m_lastTid;
}

std::uint32_t IpcClient::RequestList()
{
    if (m_command.isSsdp)
    {
        return Send(LIST_DEVICES, SonarixPb::DiscoveredDeviceList());
    }
    SonarixPb::ServiceId id;
    id.set_type(m_command.type.empty() ? kRendererType : m_command.type);
    return Send(LIST_DEVICES, id);
}

std::uint32_t IpcClient::RequestAdd()
{
    return Send(ADD_SERVICE, *m_service);
}

std::optional<IPCMessageEnvelope> IpcClient::WaitForResponse(std::uint32_t tid)
{
    const auto until = LocalSocket::Clock::now() + kResponseTimeout;
    IPCMessageEnvelope message;
    m_otherResponse.reset();
    for (;;)
    {
        switch (Wait(message, until))
        {
        case LocalSocket::Event::RECEIVED:
            if (message->kind() == IPCMessageEnvelopeBase::NOTIFICATION)
            {
                break;
            }
            if (message->tid() == tid)
            {
                return message;
            }
            m_otherResponse = message;
            break;
        case LocalSocket::Event::CLOSED:
            PrintError("the service went before it answered");
            return std::nullopt;
        case LocalSocket::Event::TIMEOUT:
            PrintError("the service has not answered for " + std::to_string(kResponseTimeout.count()) + " s");
            return std::nullopt;
        case LocalSocket::Event::OTHER: // the second signal ends the program
            break;
        }
    }
}

std::optional<std::vector<Device>> IpcClient::DevicesFromResponse(const IPCMessageEnvelope& answer, std::string& error)
{
    SonarixPb::DiscoveredDeviceList list;
    if (!IsResponse(answer, list))
    {
        error = "the service answers " + DescribeError(answer);
        return std::nullopt;
    }
    std::vector<Device> devices;
    for (const SonarixPb::DeviceInfo& info : list.device())
    {
        devices.push_back(DeviceFromInfo(info));
    }
    return devices;
}

ExitStatus IpcClient::ReportAdded(const IPCMessageEnvelope& answer)
{
    const std::string record =
        Quoted(m_command.name) + " as " + m_command.type + ", port " + std::to_string(m_command.port);
    SonarixPb::DiscoveryServiceVoid done;
    if (IsResponse(answer, done))
    {
        return PrintOutcome(EXIT_DONE, "the service publishes " + record);
    }
    const std::string text = "the service does not publish " + record + ": it answers " + DescribeError(answer);
    return answer->kind() == IPCMessageEnvelopeBase::REJECT
               ? PrintOutcome(EXIT_ERROR_RESPONSE, text)
               : PrintOutcome(EXIT_NOT_YET,
                              text + ", as it does while the network is down. It keeps the record, to "
                                     "publish it once the network is up and the product has announced itself");
}

ExitStatus IpcClient::Update()
{
    return SendUnanswered(UPDATE_SERVICE, *m_service, "the new TXT of " + Quoted(m_command.name));
}

ExitStatus IpcClient::Remove()
{
    return SendUnanswered(REMOVE_SERVICE, *m_service, "the removal of " + m_command.type);
}

ExitStatus IpcClient::Announce()
{
    return SendUnanswered(ANNOUNCE, *m_command.device, "the announcement of " + Quoted(m_command.name));
}

ExitStatus IpcClient::SendUnanswered(Identifier id, const google::protobuf::Message& payload, const std::string& what)
{
    const std::uint32_t tid = Send(id, payload);
    const auto list = WaitForResponse(RequestList());
    if (!list)
    {
        return EXIT_NO_SERVICE;
    }
    if (m_otherResponse && (*m_otherResponse)->tid() == tid)
    {
        const std::string text = "the service answers " + DescribeError(*m_otherResponse) + " to " + what;
        return (*m_otherResponse)->kind() == IPCMessageEnvelopeBase::REJECT
                   ? PrintOutcome(EXIT_ERROR_RESPONSE, text)
                   : PrintOutcome(EXIT_NOT_YET, text +
                                                    ": either it has no record of that type under that name, or "
                                                    "the network is down, and it keeps the record for when it is up");
    }
    std::string error;
    if (!DevicesFromResponse(*list, error))
    {
        return PrintOutcome(EXIT_ERROR_RESPONSE, error + " to a list, and does not answer " + what);
    }
    return PrintOutcome(EXIT_DONE, "the service has taken " + what + ", which it does not answer");
}

ExitStatus IpcClient::PrintOutcome(ExitStatus status, const std::string& text) const
{
    if (status == EXIT_ERROR_RESPONSE)
    {
        PrintError(text);
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

void PrintError(const std::string& text)
{
    std::cerr << "sonarix-ipc: " << text << std::endl;
}
