#include "GatewayFrames.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <map>
#include <string_view>
#include <utility>

namespace
{

using nlohmann::json;

constexpr int kMaxNesting = 100;

/// The members of an object as text; of a key given twice the last. The text is JSON already.
using Members = std::map<std::string, std::string_view>;

/// Where the value ends that begins at `at`; npos where it nests too deep.
std::size_t EndOfValue(std::string_view text, std::size_t at)
{
    int depth = 0;
    for (bool isInText = false; at < text.size(); ++at)
    {
        const char letter = text[at];
        if (isInText)
        {
            at += letter == '\\' ? 1U : 0U;
            isInText = letter != '"';
        }
        else if (depth == 0 && (letter == ',' || letter == '}' || letter == ':'))
        {
            return at;
        }
        else
        {
            isInText = letter == '"';
            depth += letter == '{' || letter == '[' ? 1 : letter == '}' || letter == ']' ? -1 : 0;
            if (depth > kMaxNesting)
            {
                return std::string_view::npos;
            }
        }
    }
    return at;
}

std::string_view Trimmed(std::string_view text)
{
    const std::size_t begin = std::min(text.find_first_not_of(" \t\r\n"), text.size());
    return text.substr(begin, text.find_last_not_of(" \t\r\n") + 1 - begin);
}

/// Nothing where it is no object or nests too deep.
std::optional<Members> Split(std::string_view text)
{
    text = Trimmed(text);
    if (!text.starts_with('{'))
    {
        return std::nullopt;
    }
    Members members;
    for (std::size_t at = 1; Trimmed(text.substr(at)) != "}";)
    {
        const std::size_t colon = EndOfValue(text, at);
        const std::size_t end = EndOfValue(text, colon + 1);
        if (end == std::string_view::npos)
        {
            return std::nullopt;
        }
        const std::string key = json::parse(Trimmed(text.substr(at, colon - at))).get<std::string>();
        members[key] = Trimmed(text.substr(colon + 1, end - colon - 1));
        at = end + (text[end] == ',' ? 1 : 0);
    }
    return members;
}

std::string_view Raw(const Members& members, const char* key)
{
    const auto found = members.find(key);
    return found != members.end() ? found->second : std::string_view();
}

std::string Text(std::string_view raw)
{
    return raw.starts_with('"') ? json::parse(raw).get<std::string>() : std::string();
}

int Number(const json& value)
{
    const auto wide = value.is_number_integer() ? value.get<std::int64_t>() : 0;
    return std::in_range<int>(wide) ? static_cast<int>(wide) : 0;
}

int Number(const Members& members, const char* key)
{
    const std::string_view raw = Raw(members, key);
    return raw.empty() ? 0 : Number(json::parse(raw));
}

std::string Dump(const json& value)
{
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

} // namespace

namespace GatewayFrames
{

std::optional<Frame> Parse(const std::string& text)
{
    const std::optional<Members> members = IsJson(text) ? Split(text) : std::nullopt;
    if (!members)
    {
        return std::nullopt;
    }
    Frame frame;
    frame.id = Raw(*members, "id");
    frame.method = Text(Raw(*members, "method"));
    frame.result = Raw(*members, "result");
    if (const std::optional<Members> params = Split(Raw(*members, "params")))
    {
        frame.path = Text(Raw(*params, "path"));
        frame.guid = Text(Raw(*params, "guid"));
        frame.status = Number(*params, "status");
        frame.body = Raw(*params, "body");
    }
    if (const std::optional<Members> error = Split(Raw(*members, "error")))
    {
        const Members data = Split(Raw(*error, "data")).value_or(Members());
        frame.errorBody = ErrorBody(Number(*error, "code"), Number(data, "subcode"), Text(Raw(*error, "message")),
                                    Text(Raw(data, "guid")));
    }
    return frame;
}

std::string Quoted(const std::string& text)
{
    return Dump(text);
}

std::string Params(const std::string& path, double version, const std::string& more)
{
    return R"({"path":)" + Quoted(path) + R"(,"version":)" + Dump(version) + more + "}";
}

std::string Call(std::uint64_t id, const std::string& method, const std::string& params)
{
    return R"({"jsonrpc":"2.0",)" + (id != 0 ? R"("id":)" + std::to_string(id) + "," : std::string()) +
           R"("method":")" + method + R"(","params":)" + params + "}";
}

std::string Answer(const std::string& id, const std::string& result)
{
    return R"({"jsonrpc":"2.0","id":)" + id + R"(,"result":)" + result + "}";
}

std::string ErrorAnswer(const std::string& id, const std::string& errorBody)
{
    const json body = json::parse(errorBody);
    const json data = {{"subcode", Number(body.value("subcode", json()))}, {"guid", body.value("guid", "")}};
    const json error = {
        {"code", Number(body.value("code", json()))}, {"message", body.value("message", "")}, {"data", data}};
    return R"({"jsonrpc":"2.0","id":)" + id + R"(,"error":)" + Dump(error) + "}";
}

std::string ErrorBody(int code, int subcode, const std::string& message, const std::string& guid)
{
    return Dump({{"code", code}, {"subcode", subcode}, {"message", message}, {"guid", guid}});
}

int ErrorCode(const std::string& errorBody)
{
    return Number(json::parse(errorBody).value("code", json()));
}

bool IsJson(const std::string& text)
{
    return text.find('\0') == std::string::npos && json::accept(text); // the parser takes a NUL for the end
}

} // namespace GatewayFrames
