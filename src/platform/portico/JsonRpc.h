#pragma once

#include <cstdint>
#include <string>

/// The gateway protocol's frames: JSON-RPC 2.0 as text. Stateless, safe from any thread.
namespace Portico::JsonRpc
{

enum class Kind
{
    INVALID,      ///< no JSON-RPC; `body` says why
    REQUEST,      ///< `id`, `method`, `path`, `body`
    NOTIFICATION, ///< `method`, and `path` with `body`, or `guid` with `status`
    RESULT,       ///< `id`, `body`
    ERROR,        ///< `id`, `body`
};

/// One frame from the gateway.
struct Frame
{
    Kind kind = Kind::INVALID;
    std::string id; ///< as JSON text, to be given back as it is
    std::string method;
    std::string path;
    std::string guid;
    int status = 0;
    std::string body; ///< the body or result as JSON text, empty where there is none; an error as ErrorBody() gives it
};

Frame Parse(const std::string& text);

/// `params` and `result` are JSON text, taken as they are.
std::string Request(std::uint64_t id, const std::string& method, const std::string& params);
std::string Notify(const std::string& path, double version, const std::string& body);
std::string Result(const std::string& id, const std::string& result);
/// `errorBody` has `code`, `subcode`, `message` and `guid`, as a record's JSON form has them.
std::string Error(const std::string& id, const std::string& errorBody);

std::string OpenParams(const std::string& service, const std::string& guid);
/// An empty `body` is left out.
std::string PathParams(const std::string& path, double version, const std::string& body);
std::string SubscribeParams(const std::string& path, double version, int scope);
std::string ServeParams(const std::string& verb, const std::string& path, int scope, double version,
                        const std::string& label);

std::string ErrorBody(int code, int subcode, const std::string& message, const std::string& guid);
int ErrorCode(const std::string& errorBody);

bool IsJson(const std::string& text);

} // namespace Portico::JsonRpc
