/// What clients write on a local socket, through framing, envelope and router. An input is a connection's bytes.
#include "runtime/AsyncCallback.h"
#include "runtime/ipc/ConnectorSocket.h"
#include "runtime/ipc/IPCFraming.h"
#include "runtime/ipc/IPCMessageEnvelope.h"
#include "runtime/ipc/IPCMessageRouterIF.h"
#include "schemas/SonarixPb.pb.h"
#include "tests/fuzz/FuzzChecks.h"
#include "tests/ipc/support/SocketClient.h"
#include "tests/support/RealTask.h"

#include <memory>
#include <string>
#include <string_view>

namespace
{

using Fuzz::Require;
using IPCFraming::FrameReader;

struct Outcome
{
    int taken = 0;
    int rejected = 0;
};

template <class T>
void Judge(const IPCMessageEnvelope& envelope, unsigned int id, Outcome& outcome)
{
    if (envelope->kind() == IPCMessageEnvelopeBase::REQUEST && envelope->id() == id)
    {
        T message;
        const bool isOther = envelope->has_payload_type() && envelope->payload_type() != T::descriptor()->name();
        ++(isOther || !envelope.GetPayload(message) ? outcome.rejected : outcome.taken);
    }
}

/// The expected outcome: FrameReader alone parses `bytes`, in one piece.
Outcome Expected(std::string_view bytes)
{
    Outcome outcome;
    FrameReader reader;
    reader.Append(bytes);
    IPCMessageEnvelope envelope;
    while (reader.Next(envelope) == FrameReader::ENVELOPE)
    {
        Judge<SonarixPb::ServiceId>(envelope, 2, outcome);
        Judge<SonarixPb::Service>(envelope, 3, outcome);
        Judge<SonarixPb::DeviceInfo>(envelope, 5, outcome);
    }
    return outcome;
}

class Service
{
public:
    Service()
    {
        Fuzz::Log("7");
    }

    Outcome Serve(std::string_view bytes)
    {
        int sockets[2];
        Require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) == 0, "no sockets");
        std::shared_ptr<IPCMessageRouterIF> router;
        Outcome outcome;
        m_task.Run(
            [&]
            {
                router = IPCMessageRouterFactory::CreateRouter("Router", m_task.Get(), nullptr);
                Attach<SonarixPb::ServiceId>(*router, 2, outcome);
                Attach<SonarixPb::Service>(*router, 3, outcome);
                Attach<SonarixPb::DeviceInfo>(*router, 5, outcome);
                router->Start(std::make_shared<Network::ConnectorSocket>(sockets[0]), nullptr);
            });
        SocketClient client(sockets[1]);
        const std::size_t cut = bytes.empty() ? 0 : static_cast<unsigned char>(bytes.back()) % bytes.size();
        client.Write(bytes.substr(0, cut)); // in two pieces, or three
        m_task.Drain();
        client.Write(bytes.substr(cut));
        ::shutdown(sockets[1], SHUT_WR);
        while (const std::optional<IPCMessageEnvelope> answer = client.Read())
        {
            Require((*answer)->kind() == IPCMessageEnvelopeBase::REJECT && (*answer)->payload().empty(),
                    "not a reject");
            ++outcome.rejected;
        }
        m_task.Run([&] { router.reset(); });
        return outcome;
    }

private:
    template <class T>
    void Attach(IPCMessageRouterIF& router, unsigned int id, Outcome& outcome)
    {
        router.AttachForRequest(id, AsyncCallback<T, unsigned int>(
                                        [&outcome](const T&, const unsigned int&) { ++outcome.taken; }, m_task.Get()));
    }

    const RealTask m_task{"DiscoveryServiceIPCServerTask"};
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    static auto* const s_service = new Service; // its task ends with the process
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const Outcome expected = Expected(bytes);
    const Outcome outcome = s_service->Serve(bytes);
    Require(outcome.taken == expected.taken, "requests that were lost, or made up");
    Require(outcome.rejected == expected.rejected, "rejects that were lost, or made up");
    return 0;
}
