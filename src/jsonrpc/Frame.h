#pragma once

#include <optional>
#include <string>

/// The frames of the gateway protocol: JSON-RPC 2.0 in text messages. The gateway and its client library share it.
/// Stateless, safe from any thread. Paths, verbs, bodies and versions are as the protocol has them: a body, a version
/// and an id are JSON text, which is passed on unchanged.
namespace JsonRpc
{

/// The gateway's own error codes, and those of JSON-RPC 2.0, section 5.1.
enum ErrorCode : int
{
    NOT_SERVED = 404,
    WRONG_VERB = 405,
    PATH_TAKEN = 409,
    TOO_LARGE = 413,   ///< of the client library: larger than the gateway accepts
    UNREACHABLE = 503, ///< the product or the gateway is not reachable, or a queue is full
    NO_ANSWER = 504,   ///< within the time limit
    PARSE_ERROR = -32700,
    INVALID_REQUEST = -32600,
    METHOD_NOT_FOUND = -32601,
    INVALID_PARAMS = -32602,
    INTERNAL_ERROR = -32603,
};

/// How a request ended.
struct Answer
{
    std::string result; ///< JSON text; empty for an error
    std::string error;  ///< JSON text of an object with `code`, `message` and `data`; empty for a result
    int code = 0;       ///< of the error

    static Answer Result(std::string json);
    static Answer Empty(); ///< the result `{}`
    /// `guid` is the product that the error is about; `data` gets it together with `subcode`.
    static Answer Error(int code, const std::string& message, const std::string& guid, int subcode = 0);
    bool IsError() const
    {
        return !error.empty();
    }
};

/// The parameters of all methods. A field of a wrong type is named in `malformed`.
struct Params
{
    std::string malformed; ///< name of a field that cannot be used; empty: none
    std::optional<std::string> path;
    std::string version = "1.0";     ///< JSON text of a number
    std::optional<std::string> body; ///< JSON text
    std::optional<std::string> verb; ///< in lower case
    std::optional<std::string> service;
    std::string guid;
    int scope = 0;
    int status = 0; ///< of a heartbeat
};

struct Frame
{
    enum class Kind
    {
        INVALID, ///< `answer` is the error to be sent back to `id`
        CALL,    ///< `method` and `params`; without an `id` it is a notification, which is not answered
        ANSWER,  ///< `answer` to the request `id`
    };
    Kind kind = Kind::INVALID;
    std::optional<std::string> id; ///< JSON text
    std::string method;
    Params params;
    Answer answer;
};

/// A request to the server of a path.
struct Request
{
    std::string verb; ///< "get", "post", "put", "delete"
    std::string path;
    std::string version = "1.0";
    std::optional<std::string> body;
};

/// Maximum length of a path. A longer path is an invalid parameter.
inline constexpr std::size_t kMaxPathBytes = 1024;

/// Never throws. Nesting and the number of members are bounded (base/JsonText.h) before anything is parsed.
Frame FrameFromText(const std::string& text);
bool IsVerb(const std::string& method);
bool IsJson(const std::string& text);

std::string TextFromCall(const std::string& id, const std::string& method, const std::string& params);
std::string TextFromRequest(const std::string& id, const Request& request);
std::string TextFromAnswer(const std::string& id, const Answer& answer);
/// An empty body is left out.
std::string TextFromNotification(const std::string& path, const std::string& version, const std::string& body);
std::string TextFromHeartbeat(const std::string& guid, int status);

// These functions make the `params` of calls, as JSON text.
std::string OpenParams(const std::string& service, const std::string& guid);
/// An empty body is left out.
std::string PathParams(const std::string& path, const std::string& version, const std::string& body);
std::string SubscribeParams(const std::string& path, const std::string& version, int scope);
std::string ServeParams(const std::string& verb, const std::string& path, int scope, const std::string& version,
                        const std::string& label);
std::string VersionFromNumber(double version);

/// The JSON form of an error record, an object with `code`, `subcode`, `message` and `guid`. Empty for a result.
std::string RecordFromAnswer(const Answer& answer);
/// Returns the answer that an error record describes. Fields that `record` lacks are 0 or empty.
Answer AnswerFromRecord(const std::string& record);

} // namespace JsonRpc
