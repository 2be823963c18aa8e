#pragma once

#include <optional>
#include <string>

/// The gateway program: paths, requests and notifications between local clients, and between products.
namespace Gateway
{

/// The gateway's own errors, and JSON-RPC's.
enum ErrorCode : int
{
    NOT_SERVED = 404,
    WRONG_VERB = 405,
    PATH_TAKEN = 409,
    UNREACHABLE = 503, ///< the product is; or too much waits already
    NO_ANSWER = 504,
    PARSE_ERROR = -32700,
    INVALID_REQUEST = -32600,
    METHOD_NOT_FOUND = -32601,
    INVALID_PARAMS = -32602,
    INTERNAL_ERROR = -32603,
};

/// How a request ended: `result` or, where `error` is not empty, the error object with its `code`. Texts are JSON.
struct Answer
{
    std::string result;
    std::string error;
    int code = 0;

    static Answer Result(std::string json);
    static Answer Empty(); ///< the result `{}`
    /// `guid`: the product that the error is about.
    static Answer Error(int code, const std::string& message, const std::string& guid);
    bool IsError() const
    {
        return !error.empty();
    }
};

/// What any method can have as parameters; a field of another type than its own makes them `malformed`.
struct Params
{
    std::string malformed; ///< which field, empty: none
    std::optional<std::string> path;
    std::string version = "1.0";     ///< JSON text of a number
    std::optional<std::string> body; ///< JSON text
    std::optional<std::string> verb; ///< in small letters
    std::optional<std::string> service;
    std::string guid;
    int scope = 0;
};

/// One text message of JSON-RPC 2.0.
struct Frame
{
    enum class Kind
    {
        INVALID, ///< `answer` is the error to be sent back
        CALL,    ///< `method` and `params`; without an `id` nobody waits for an answer
        ANSWER,  ///< `answer` to what was sent with `id`
    };
    Kind kind = Kind::INVALID;
    std::optional<std::string> id; ///< JSON text
    std::string method;
    Params params;
    Answer answer;
};

/// A request on its way to the server of a path, or to another product.
struct Request
{
    std::string verb; ///< "get", "post", "put", "delete"
    std::string path;
    std::string version = "1.0";
    std::optional<std::string> body;
};

/// Never throws, whatever the text holds: nesting is bounded (JsonText::kMaxNesting) before anything is parsed.
Frame ParseFrame(const std::string& text);

/// A path is text from a client: longer than this it is an invalid parameter.
inline constexpr std::size_t kMaxPathBytes = 1024;

std::string ToJson(const std::string& text); ///< with quotes

std::string CallFrame(const std::string& id, const Request& request);
std::string CallFrame(const std::string& id, const std::string& method, const std::string& params);
std::string AnswerFrame(const std::string& id, const Answer& answer);
std::string NotifyFrame(const std::string& path, const std::string& version, const std::string& body);
std::string HeartbeatFrame(const std::string& guid, int status);

bool IsVerb(const std::string& method);

} // namespace Gateway
