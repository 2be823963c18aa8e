// What a session serves and listens to: told to the gateway at each connection, answered, withdrawn.
#include "platform/portico/Answerer.h"
#include "platform/portico/Session.h"
#include "runtime/DPrint.h"
#include "websocket/WebSocket.h"

#include <algorithm>
#include <utility>

namespace Portico
{

namespace
{

const DPrint s_log("PorticoClient");

constexpr int kCodeNotServed = 404;
constexpr int kCodeTaken = 409;
constexpr int kCodeTimeout = 504;

} // namespace

void Session::Add(const std::shared_ptr<Registration>& registration)
{
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

void Session::Remove(const SlotIF* owner)
{
    m_calls.Drop(owner);
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

void Session::Announce(const std::shared_ptr<Registration>& registration)
{
    if (!m_isOpen) // sending the one before may have ended the connection
    {
        return;
    }
    if (registration->serve)
    {
        Serve(registration);
        return;
    }
    const auto answered = [this, path = registration->path](const std::string&, const std::string& errorBody)
    {
        if (!errorBody.empty() && m_isOpen)
        {
            DPRINTF(s_log, DPrint::LEVEL_ERROR, "%s: subscription to %s: %s", Name().c_str(), path.c_str(),
                    errorBody.c_str());
            TellRefused(path, errorBody);
        }
    };
    Call("subscribe", JsonRpc::SubscribeParams(registration->path, registration->version, registration->scope),
         answered);
}

void Session::Serve(const std::shared_ptr<Registration>& registration)
{
    const auto answered = [this, registration](const std::string&, const std::string& errorBody)
    { HandleServed(registration, errorBody); };
    Call("serve",
         JsonRpc::ServeParams(registration->verb, registration->path, registration->scope, registration->version,
                              registration->label),
         answered);
}

void Session::HandleServed(const std::shared_ptr<Registration>& registration, const std::string& errorBody)
{
    const bool isInForce =
        std::find(m_registrations.begin(), m_registrations.end(), registration) != m_registrations.end();
    if (!m_isOpen || !isInForce)
    {
        return;
    }
    if (errorBody.empty())
    {
        registration->isConfirmed = true;
        registration->backoff.Reset();
        SendHeld(registration->path);
        return;
    }
    const int code = JsonRpc::ErrorCode(errorBody);
    if (code == kCodeTaken || code == kCodeTimeout)
    {
        RetryServe(registration);
        return;
    }
    DPRINT(s_log, DPrint::LEVEL_ERROR,
           Name() << ": " << registration->verb << " " << registration->path << " is not served: " << errorBody);
}

/// The process that served the path before us may be dead without the gateway's knowing yet.
void Session::RetryServe(const std::shared_ptr<Registration>& registration)
{
    if (!registration->retry)
    {
        DPRINT(s_log, DPrint::LEVEL_WARNING,
               Name() << ": " << registration->verb << " " << registration->path << " is not ours yet, trying on");
        registration->retry = std::make_unique<MessageTimer>("PorticoClientServe", m_io);
    }
    const std::weak_ptr<Registration> weak = registration;
    registration->retry->PostIn(static_cast<unsigned int>(registration->backoff.Next().count()),
                                [this, weak]
                                {
                                    if (const std::shared_ptr<Registration> again = weak.lock(); again && m_isOpen)
                                    {
                                        Serve(again);
                                    }
                                });
}

void Session::Withdraw(const Registration& registration)
{
    if (registration.serve)
    {
        Call("withdraw",
             JsonRpc::ServeParams(registration.verb, registration.path, registration.scope, registration.version,
                                  registration.label),
             nullptr);
        return;
    }
    const bool isWanted =
        std::any_of(m_registrations.begin(), m_registrations.end(),
                    [&registration](const auto& each) { return each->listen && each->path == registration.path; });
    if (!isWanted)
    {
        Call("unsubscribe", JsonRpc::SubscribeParams(registration.path, registration.version, registration.scope),
             nullptr);
    }
}

/// Whether a notification of the path may go out now: before the gateway agreed that we serve it, it would be lost.
bool Session::IsServed(const std::string& path) const
{
    bool isOurs = false;
    for (const std::shared_ptr<Registration>& registration : m_registrations)
    {
        if (registration->serve && registration->path == path)
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

void Session::SendHeld(const std::string& path)
{
    const std::string* const held = m_held.Find(path);
    if (held != nullptr && m_isOpen && IsServed(path) && m_connection->HasRoomFor(held->size()))
    {
        Send(m_held.Take(path));
    }
}

void Session::SendAllHeld()
{
    for (const std::string& path : m_held.Paths())
    {
        SendHeld(path);
    }
}

void Session::HandleRequest(const JsonRpc::Frame& frame)
{
    const auto found = std::find_if(m_registrations.begin(), m_registrations.end(),
                                    [&frame](const auto& each) {
                                        return each->serve && each->serve->IsSet() && each->verb == frame.method &&
                                               each->path == frame.path;
                                    });
    if (found == m_registrations.end())
    {
        Send(JsonRpc::Error(frame.id, ErrorText(kCodeNotServed, 0, "nobody serves " + frame.path)));
        return;
    }
    const std::shared_ptr<Registration> registration = *found;
    const auto answerer = std::make_shared<Answerer>(weak_from_this(), m_io, m_epoch, frame.id);
    try
    {
        registration->serve->Call(
            frame.body, [answerer](const google::protobuf::Message& message) { answerer->Respond(message); },
            [answerer](const google::protobuf::Message& message) { answerer->Fail(message); });
    }
    catch (const std::exception& failure)
    {
        answerer->Fail(failure.what());
    }
}

} // namespace Portico
