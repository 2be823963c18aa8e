// GatewaySession: served paths and subscriptions.
#include "platform/portico/GatewaySession.h"
#include "platform/portico/ResponseSender.h"
#include "runtime/DPrint.h"
#include "runtime/Liveness.h"
#include "runtime/TaskCheck.h"
#include "websocket/WebSocket.h"

#include <algorithm>
#include <utility>

namespace Portico
{

namespace
{

const DPrint s_log("PorticoClient");

const auto kIgnore = [](const JsonRpc::Answer&) {};

} // namespace

void GatewaySession::Add(const std::shared_ptr<Registration>& registration)
{
    TASK_CHECK(m_io);
    if (m_isClosed)
    {
        return;
    }
    m_registrations.push_back(registration);
    if (m_isOpen)
    {
        Announce(registration);
    }
}

void GatewaySession::Remove(const RevocableCallbackIF* owner)
{
    TASK_CHECK(m_io);
    m_requests.Remove(owner);
    const auto found = std::find_if(m_registrations.begin(), m_registrations.end(),
                                    [owner](const auto& each) { return each->Owner() == owner; });
    if (found == m_registrations.end())
    {
        return;
    }
    const std::shared_ptr<Registration> registration = *found;
    m_registrations.erase(found);
    registration->retry.reset();
    if (m_isOpen)
    {
        Withdraw(*registration);
    }
}

void GatewaySession::Announce(const std::shared_ptr<Registration>& registration)
{
    if (!m_isOpen) // sending the previous one may have ended the connection
    {
        return;
    }
    if (registration->served)
    {
        Serve(registration);
        return;
    }
    const auto answered = [this, path = registration->path](const JsonRpc::Answer& answer)
    {
        if (answer.IsError() && m_isOpen)
        {
            DPRINTF(s_log, DPrint::LEVEL_ERROR, "%s: subscription to %s: %s", Name().c_str(), path.c_str(),
                    JsonRpc::RecordFromAnswer(answer).c_str());
            ReportRefused(path, answer);
        }
    };
    Call("subscribe", JsonRpc::SubscribeParams(registration->path, registration->version, registration->scope),
         answered);
}

void GatewaySession::Serve(const std::shared_ptr<Registration>& registration)
{
    const auto answered = [this, registration](const JsonRpc::Answer& answer) { HandleServed(registration, answer); };
    Call("serve",
         JsonRpc::ServeParams(registration->verb, registration->path, registration->scope, registration->version,
                              registration->label),
         answered);
}

void GatewaySession::HandleServed(const std::shared_ptr<Registration>& registration, const JsonRpc::Answer& answer)
{
    TASK_CHECK(m_io);
    const bool isInForce =
        std::find(m_registrations.begin(), m_registrations.end(), registration) != m_registrations.end();
    if (!m_isOpen || !isInForce)
    {
        return;
    }
    if (!answer.IsError())
    {
        registration->isConfirmed = true;
        registration->backoff.Reset();
        SendDeferred(registration->path);
        return;
    }
    if (answer.code == JsonRpc::PATH_TAKEN || answer.code == JsonRpc::NO_ANSWER)
    {
        RetryServe(registration);
        return;
    }
    DPRINT(s_log, DPrint::LEVEL_ERROR,
           Name() << ": " << registration->verb << " " << registration->path
                  << " is not served: " << JsonRpc::RecordFromAnswer(answer));
}

/// Repeats `serve` after a pause: the gateway may not have noticed yet that the previous server of the path has ended.
void GatewaySession::RetryServe(const std::shared_ptr<Registration>& registration)
{
    if (!registration->retry)
    {
        DPRINT(s_log, DPrint::LEVEL_WARNING,
               Name() << ": " << registration->verb << " " << registration->path
                      << " is still served by another client, retrying");
        registration->retry = std::make_unique<MessageTimer>("PorticoClientServe", m_io);
    }
    const auto retry = [this](Registration& again)
    {
        if (m_isOpen)
        {
            Serve(again.shared_from_this());
        }
    };
    registration->retry->PostIn(static_cast<unsigned int>(registration->backoff.Next().count()),
                                Liveness::Weakly(registration, retry));
}

void GatewaySession::Withdraw(const Registration& registration)
{
    if (registration.served)
    {
        Call("withdraw",
             JsonRpc::ServeParams(registration.verb, registration.path, registration.scope, registration.version,
                                  registration.label),
             kIgnore);
        return;
    }
    const bool isWanted = std::any_of(m_registrations.begin(), m_registrations.end(),
                                      [&registration](const auto& each)
                                      { return each->subscription && each->path == registration.path; });
    if (!isWanted)
    {
        Call("unsubscribe", JsonRpc::SubscribeParams(registration.path, registration.version, registration.scope),
             kIgnore);
    }
}

/// Whether a notification of the path may be sent. The gateway drops one that comes before it has accepted `serve`.
bool GatewaySession::IsServed(const std::string& path) const
{
    bool isOurs = false;
    for (const std::shared_ptr<Registration>& registration : m_registrations)
    {
        if (registration->served && registration->path == path)
        {
            isOurs = true;
            if (registration->isConfirmed)
            {
                return true;
            }
        }
    }
    return !isOurs;
}

void GatewaySession::SendDeferred(const std::string& path)
{
    const std::string* const held = m_deferred.Find(path);
    if (held != nullptr && m_isOpen && IsServed(path) && m_connection->HasRoomFor(held->size()))
    {
        Send(m_deferred.Take(path));
    }
}

void GatewaySession::SendAllDeferred()
{
    for (const std::string& path : m_deferred.Paths())
    {
        SendDeferred(path);
    }
}

void GatewaySession::HandleRequest(const JsonRpc::Frame& frame)
{
    const auto found = std::find_if(m_registrations.begin(), m_registrations.end(),
                                    [&frame](const auto& each) {
                                        return each->served && each->served->IsActive() && each->verb == frame.method &&
                                               each->path == frame.params.path;
                                    });
    if (found == m_registrations.end())
    {
        Reply(m_epoch, *frame.id, Error(JsonRpc::NOT_SERVED, "nobody serves " + frame.params.path.value_or("")));
        return;
    }
    const std::shared_ptr<Registration> registration = *found;
    const auto sender = std::make_shared<ResponseSender>(weak_from_this(), m_io, m_epoch, *frame.id);
    try
    {
        registration->served->Call(
            frame.params.body.value_or(""),
            [sender](const google::protobuf::Message& message) { sender->Respond(message); },
            [sender](const google::protobuf::Message& message) { sender->Fail(message); });
    }
    catch (const std::exception& failure)
    {
        sender->Fail(failure.what());
    }
}

} // namespace Portico
