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

/// What the gateway client reports by itself.
enum PORTICO_CLIENT_ERRORS : int // any status that a gateway may send is a value of it
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

/// Subcode of an error that the client library makes itself: a body that does not parse, a handler that throws.
inline constexpr int kSubcodeMarkup = 2005;

} // namespace Portico

/// One connection to the product's local API gateway, as the rest of the service sees it: serve paths, send
/// requests, subscribe, notify. Bodies are the JSON form of records.
/// Thread: every operation is safe from any thread and returns at once. Callbacks come on the library's own
/// thread, so callers pass AsyncCallbacks. Owner: whoever created it; once it is destroyed it calls nobody.
/// Never blocks, never waits for the network: what is registered holds across reconnects.
class PorticoClientIF
{
public:
    using Response = Callback<google::protobuf::Message>;
    using GetHandler = Callback<Response, Response>;               ///< (response, error)
    using BodyHandler = Callback<std::string, Response, Response>; ///< (body, response, error)

    virtual ~PorticoClientIF() = default;

    /// Makes `path` answer GET. The handler answers by calling exactly one of the two, now or later, from any thread.
    virtual CallbackConnection RegisterGet(const std::string& path, const GetHandler& handler,
                                           const Portico::EndpointScope& scope, const double& version,
                                           const std::string& label, const int& option) = 0;

    /// The untyped form of RegisterPost, RegisterPut and RegisterDelete.
    virtual CallbackConnection RegisterBody(Portico::Verb verb, const std::string& path, const BodyHandler& handler,
                                            const Portico::EndpointScope& scope, const double& version,
                                            const std::string& label, const int& option) = 0;

    /// The untyped form of RegisterNotification: every body that is notified on `path`.
    virtual CallbackConnection RegisterNotificationText(const std::string& path, const Callback<std::string>& callback,
                                                        const Portico::EndpointScope& scope, const double& version,
                                                        const int& option) = 0;

    /// One request. `done` is called once with (body, error body); the error body is empty for an answer, otherwise
    /// an object with `code`, `subcode`, `message` and `guid`. Disconnecting the result drops the answer.
    virtual CallbackConnection SendText(Portico::Verb verb, const std::string& path, const std::string& body,
                                        const Callback<std::string, std::string>& done, const double& version) = 0;

    /// Pushes a record to the subscribers of a path served here.
    virtual void SendNotification(const std::string& path, const google::protobuf::Message& message,
                                  const double& version) = 0;

    /// Ends the client's activity: no callback starts after it returns to the caller. It waits for one that runs,
    /// unless it is called from within. So does the destructor.
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

    /// A payload that does not parse, and an exception out of the callback, are swallowed without a trace.
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
            catch (const std::exception&) // NOLINT(bugprone-empty-catch): a neighbour's bad push is nobody's news
            {
            }
        };
        return RegisterNotificationText(path, parse, scope, version, option);
    }

    /// One GET. A body that does not parse ends in `onError` with guid "1", code 0 and subcode 2005.
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
