#pragma once

#include <cstdint>
#include <optional>
#include <string>

/// The gateway protocol's frames, JSON-RPC 2.0. Bodies stay the text that they were. Stateless, safe from any thread.
namespace GatewayFrames
{

/// One frame from the gateway; what it lacks is empty.
struct Frame
{
    std::string id; ///< JSON text
    std::string method;
    std::string path;
    std::string guid;
    int status = 0;
    std::string body;      ///< JSON text
    std::string result;    ///< JSON text
    std::string errorBody; ///< as ErrorBody() gives it
};

/// Nothing: no object, not JSON, or nested so deep that readers of the bodies would suffer.
std::optional<Frame> Parse(const std::string& text);

std::string Quoted(const std::string& text);
/// An object of path and version, and `more` behind them: empty, or `,"key":value` any number of times.
std::string Params(const std::string& path, double version, const std::string& more);
std::string Call(std::uint64_t id, const std::string& method, const std::string& params); ///< `id` 0: notification
std::string Answer(const std::string& id, const std::string& result);
std::string ErrorAnswer(const std::string& id, const std::string& errorBody);

std::string ErrorBody(int code, int subcode, const std::string& message, const std::string& guid);
int ErrorCode(const std::string& errorBody);

bool IsJson(const std::string& text);

} // namespace GatewayFrames
