#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

class NotifyTargetTaskIF;

namespace google::protobuf
{
class Message;
}

namespace Portico
{

class Session;

/// Takes the answer to one request of the gateway, once, from any thread; later calls are ignored. An answer for
/// a connection that went meanwhile, or for a client that ended, is dropped.
class Answerer final
{
public:
    Answerer(std::weak_ptr<Session> session, NotifyTargetTaskIF* io, std::uint64_t epoch, std::string id);

    void Respond(const google::protobuf::Message& message);
    /// `error` has `code`, `subcode`, `message` and `guid`.
    void Fail(const google::protobuf::Message& error);
    /// Code 0, subcode 2005.
    void Fail(const char* text);

private:
    void Post(std::string frame);

    std::weak_ptr<Session> m_session;
    NotifyTargetTaskIF* m_io;
    std::uint64_t m_epoch;
    std::string m_id;
    std::atomic<bool> m_isAnswered = false;
};

} // namespace Portico
