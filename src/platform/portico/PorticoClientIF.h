#pragma once

#include "runtime/Callback.h"
#include "runtime/CallbackConnection.h"
#include <ProtoToMarkup.h>

#include <exception>
#include <memory>
#include <string>

namespace google::protobuf
{
class Message;
}

/// Status of a remote product. The gateway may send other values.
enum PORTICO_CLIENT_ERRORS : int
{
    HEARTBEAT_ONLINE = 1040,  ///< the remote product answers
    HEARTBEAT_OFFLINE = 1041, ///< the remote product does not answer
};

namespace Portico
{

/// Who may reach an endpoint.
enum class EndpointScope
{
    PUBLIC = 0,  ///< other products too
    PRIVATE = 1, ///< this product alone
};

enum class Verb
{
    GET,
    POST,
    PUT,
    DELETE,
};

/// Subcode of errors that the client library creates: a body that does not parse, an exception in a handler.
inline constexpr int kSubcodeMarkup = 2005;

} // namespace Portico

/// A connection to the product's local API gateway: serve paths, send requests, subscribe, notify. Bodies are the
/// JSON form of records.
/// Thread: every operation is safe from any thread and returns at once. Callbacks come on the library's thread, so
/// callers pass AsyncCallbacks. Owner: the caller of Create(). No callback comes after destruction. Never waits for
/// the network: registrations are kept across reconnects.
class PorticoClientIF
{
public:
    using Response = Callback<google::protobuf::Message>;
    using GetHandler = Callback<Response, Response>;               ///< (response, error)
    using BodyHandler = Callback<std::string, Response, Response>; ///< (body, response, error)

    virtual ~PorticoClientIF() = default;

    /// Serves GET of `path`. The handler answers by calling exactly one of its two callbacks, now or later, on any
    /// thread.
    virtual CallbackConnection RegisterGet(const std::string& path, const GetHandler& handler,
                                           const Portico::EndpointScope& scope, const double& version,
                                           const std::string& label, const int& option) = 0;

    /// The untyped form of RegisterPost, RegisterPut and RegisterDelete.
    virtual CallbackConnection RegisterBody(Portico::Verb verb, const std::string& path, const BodyHandler& handler,
                                            const Portico::EndpointScope& scope, const double& version,
                                            const std::string& label, const int& option) = 0;

    /// The untyped form of RegisterNotification: gets every body that is notified on `path`.
    virtual CallbackConnection RegisterNotificationText(const std::string& path, const Callback<std::string>& callback,
                                                        const Portico::EndpointScope& scope, const double& version,
                                                        const int& option) = 0;

    /// Sends one request. `done` is called once with (body, error body). The error body is empty on success,
    /// otherwise an object with `code`, `subcode`, `message` and `guid`. Disconnecting the result drops the answer.
    virtual CallbackConnection SendText(Portico::Verb verb, const std::string& path, const std::string& body,
                                        const Callback<std::string, std::string>& done, const double& version) = 0;

    /// Sends a record to the subscribers of a path that this client serves.
    virtual void SendNotification(const std::string& path, const google::protobuf::Message& message,
                                  const double& version) = 0;

    /// Ends the client. No callback starts after it has returned. Waits for a running callback, unless called from
    /// inside it. The destructor does the same.
    virtual void Shutdown() = 0;

    template <class T>
    CallbackConnection RegisterPost(const std::string& path, const Callback<T, Response, Response>& handler,
                                    const Portico::EndpointScope& scope, const double& version,
                                    const std::string& label, const int& option)
    {
        return RegisterBody(Portico::Verb::POST, path, ParseBody<T>(handler), scope, version, label, option);
    }

    template <class T>
    CallbackConnection RegisterPut(const std::string& path, const Callback<T, Response, Response>& handler,
                                   const Portico::EndpointScope& scope, const double& version, const std::string& label,
                                   const int& option)
    {
        return RegisterBody(Portico::Verb::PUT, path, ParseBody<T>(handler), scope, version, label, option);
    }

    template <class T>
    CallbackConnection RegisterDelete(const std::string& path, const Callback<T, Response, Response>& handler,
                                      const Portico::EndpointScope& scope, const double& version,
                                      const std::string& label, const int& option)
    {
        return RegisterBody(Portico::Verb::DELETE, path, ParseBody<T>(handler), scope, version, label, option);
    }

    /// Payloads that do not parse and exceptions of the callback are ignored.
    template <class T>
    CallbackConnection RegisterNotification(const std::string& path, const Callback<T>& callback,
                                            const Portico::EndpointScope& scope, const double& version,
                                            const int& option = 0)
    {
        const Callback<std::string> parse = [callback](const std::string& body)
        {
            try
            {
                T message;
                ProtoToMarkup::FromJson(body, &message, T::descriptor()->name());
                callback(message);
            }
            catch (const std::exception&) // NOLINT(bugprone-empty-catch): a bad notification must not fill the log
            {
            }
        };
        return RegisterNotificationText(path, parse, scope, version, option);
    }

    /// Sends one GET. A body that does not parse ends in `onError` with guid "1", code 0 and subcode 2005.
    template <class Resp, class Err>
    CallbackConnection SendGet(const std::string& path, const Callback<Resp>& onResult, const Callback<Err>& onError,
                               const double& version)
    {
        const Callback<std::string, std::string> done =
            [onResult, onError](const std::string& body, const std::string& errorBody)
        {
            try
            {
                if (!errorBody.empty())
                {
                    Err error;
                    ProtoToMarkup::FromJson(errorBody, &error, Err::descriptor()->name());
                    onError(error);
                    return;
                }
                Resp message;
                ProtoToMarkup::FromJson(body, &message, Resp::descriptor()->name());
                onResult(message);
            }
            catch (const std::exception& failure)
            {
                Err error;
                error.set_guid("1");
                error.set_code(0);
                error.set_subcode(Portico::kSubcodeMarkup);
                error.set_message(failure.what());
                onError(error);
            }
        };
        return SendText(Portico::Verb::GET, path, {}, done, version);
    }

protected:
    /// Calls `error` with a Portico::Error of code 0, subcode 2005 and `text`.
    static void AnswerMarkupError(const Response& error, const std::string& text);

private:
    template <class T>
    static BodyHandler ParseBody(const Callback<T, Response, Response>& handler)
    {
        return [handler](const std::string& body, const Response& response, const Response& error)
        {
            try
            {
                T message;
                ProtoToMarkup::FromJson(body, &message, T::descriptor()->name());
                handler(message, response, error);
            }
            catch (const std::exception& failure)
            {
                AnswerMarkupError(error, failure.what());
            }
        };
    }
};
