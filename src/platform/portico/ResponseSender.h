#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

class NotifyTargetTaskIF;

namespace google::protobuf
{
class Message;
}

namespace JsonRpc
{
struct Answer;
}

namespace Portico
{

class GatewaySession;

/// Sends the answer to one request of the gateway. The first call counts, later ones are ignored. An answer for a
/// connection that has been lost, or for a client that has ended, is dropped.
/// Thread: safe from any thread. Shared by the two callbacks that a handler gets.
class ResponseSender final
{
public:
    ResponseSender(std::weak_ptr<GatewaySession> session, NotifyTargetTaskIF* io, std::uint64_t epoch, std::string id);

    void Respond(const google::protobuf::Message& message);
    /// Answers with `error`, which has `code`, `subcode`, `message` and `guid`.
    void Fail(const google::protobuf::Message& error);
    /// Answers with an error of code 0, subcode 2005 and message `text`.
    void Fail(const char* text);

private:
    void Send(const google::protobuf::Message& message,
              const std::function<JsonRpc::Answer(std::string)>& answerFromText);
    void Post(JsonRpc::Answer answer);

    std::weak_ptr<GatewaySession> m_session;
    NotifyTargetTaskIF* m_io;
    std::uint64_t m_epoch;
    std::string m_id;
    std::atomic<bool> m_isAnswered = false;
};

} // namespace Portico
