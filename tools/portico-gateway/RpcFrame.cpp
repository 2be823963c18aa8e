#include "tools/portico-gateway/RpcFrame.h"

#include "base/JsonText.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <limits>

namespace Gateway
{
namespace
{

using Json = nlohmann::ordered_json; // bodies go on in the order in which they came

std::string Dump(const Json& value)
{
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

/// What the frame carries at the place of `value`: the text that was taken out there, or the value itself.
std::string Carried(const Json& value, const std::string& body)
{
    return value.is_null() && !body.empty() ? body : Dump(value);
}

Frame Invalid(int code, const std::string& message, const std::string& id = "null")
{
    Frame frame;
    frame.id = id;
    frame.answer = Answer::Error(code, message, {});
    return frame;
}

void ReadText(const Json& object, const char* key, std::optional<std::string>& value, std::string& malformed)
{
    const auto found = object.find(key);
    if (found == object.end())
    {
        return;
    }
    if (!found->is_string())
    {
        malformed = key;
        return;
    }
    value = found->get<std::string>();
}

void ReadPath(const Json& object, Params& params)
{
    ReadText(object, "path", params.path, params.malformed);
    if (params.path && (params.path->empty() || params.path->size() > kMaxPathBytes))
    {
        params.malformed = "path";
    }
}

void ReadVerb(const Json& object, Params& params)
{
    ReadText(object, "verb", params.verb, params.malformed);
    if (params.verb)
    {
        std::transform(params.verb->begin(), params.verb->end(), params.verb->begin(),
                       [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
        if (!IsVerb(*params.verb))
        {
            params.malformed = "verb";
        }
    }
}

void ReadNumbers(const Json& object, Params& params)
{
    if (const auto version = object.find("version"); version != object.end())
    {
        params.version = Dump(*version);
        if (!version->is_number())
        {
            params.malformed = "version";
        }
    }
    if (const auto scope = object.find("scope"); scope != object.end())
    {
        if (*scope != Json(0) && *scope != Json(1))
        {
            params.malformed = "scope";
            return;
        }
        params.scope = scope->get<int>();
    }
}

Params ReadParams(const Json& document, const std::string& takenBody)
{
    Params params;
    const auto found = document.find("params");
    if (found == document.end())
    {
        return params;
    }
    if (!found->is_object())
    {
        params.malformed = "params";
        return params;
    }
    std::optional<std::string> label;
    std::optional<std::string> guid;
    ReadPath(*found, params);
    ReadVerb(*found, params);
    ReadNumbers(*found, params);
    ReadText(*found, "service", params.service, params.malformed);
    ReadText(*found, "label", label, params.malformed);
    ReadText(*found, "guid", guid, params.malformed);
    params.guid = guid.value_or("");
    if (const auto body = found->find("body"); body != found->end())
    {
        params.body = Carried(*body, takenBody);
    }
    return params;
}

int ReadCode(const Json& error)
{
    const auto found = error.find("code");
    if (found == error.end() || !found->is_number_integer())
    {
        return 0;
    }
    const auto value = found->get<std::int64_t>();
    return static_cast<int>(
        std::clamp<std::int64_t>(value, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

Answer ReadAnswer(const Json& document, const std::string& takenBody)
{
    if (const auto result = document.find("result"); result != document.end())
    {
        return Answer::Result(Carried(*result, takenBody));
    }
    const auto found = document.find("error");
    if (found == document.end() || !found->is_object())
    {
        return Answer::Error(INTERNAL_ERROR, "the answer holds neither result nor error", {});
    }
    Answer answer;
    answer.code = ReadCode(*found);
    const auto message = found->find("message");
    const auto data = found->find("data");
    const Json error = {
        {"code", answer.code},
        {"message", message != found->end() && message->is_string() ? *message : Json("")},
        {"data", data != found->end() && data->is_object() ? *data : Json({{"subcode", 0}, {"guid", ""}})}};
    answer.error = Dump(error);
    return answer;
}

} // namespace

Answer Answer::Result(std::string json)
{
    Answer answer;
    answer.result = std::move(json);
    return answer;
}

Answer Answer::Empty()
{
    return Result("{}");
}

Answer Answer::Error(int code, const std::string& message, const std::string& guid)
{
    const Json error = {{"code", code}, {"message", message}, {"data", {{"subcode", 0}, {"guid", guid}}}};
    Answer answer;
    answer.code = code;
    answer.error = Dump(error);
    return answer;
}

Frame ParseFrame(const std::string& text)
{
    const JsonText::Frame parts = JsonText::ReadFrame(text);
    if (parts.verdict == JsonText::Verdict::TOO_COMPLEX) // values may be written out again, a stack frame a level
    {
        return Invalid(PARSE_ERROR, "nested too deep, or too many members");
    }
    const Json document = Json::parse(parts.envelope, nullptr, /*allow_exceptions=*/false);
    if (document.is_discarded())
    {
        return Invalid(PARSE_ERROR, "no JSON");
    }
    if (!document.is_object())
    {
        return Invalid(INVALID_REQUEST, "no JSON-RPC object");
    }

    Frame frame;
    if (const auto id = document.find("id"); id != document.end())
    {
        if (!id->is_string() && !id->is_number() && !id->is_null())
        {
            return Invalid(INVALID_REQUEST, "an id is a string, a number or null");
        }
        frame.id = Dump(*id);
    }
    const auto method = document.find("method");
    if (method == document.end() && (document.contains("result") || document.contains("error")))
    {
        frame.kind = Frame::Kind::ANSWER;
        frame.answer = ReadAnswer(document, parts.body);
        return frame;
    }
    const auto version = document.find("jsonrpc");
    if (version == document.end() || *version != Json("2.0"))
    {
        return Invalid(INVALID_REQUEST, "jsonrpc is not \"2.0\"", frame.id.value_or("null"));
    }
    if (method == document.end() || !method->is_string())
    {
        return Invalid(INVALID_REQUEST, "no method", frame.id.value_or("null"));
    }
    frame.kind = Frame::Kind::CALL;
    frame.method = method->get<std::string>();
    frame.params = ReadParams(document, parts.body);
    return frame;
}

std::string ToJson(const std::string& text)
{
    return Dump(Json(text));
}

std::string CallFrame(const std::string& id, const std::string& method, const std::string& params)
{
    return R"({"jsonrpc":"2.0","id":)" + id + R"(,"method":")" + method + R"(","params":)" + params + "}";
}

std::string CallFrame(const std::string& id, const Request& request)
{
    return CallFrame(id, request.verb,
                     R"({"path":)" + ToJson(request.path) + R"(,"version":)" + request.version +
                         (request.body ? R"(,"body":)" + *request.body : std::string()) + "}");
}

std::string AnswerFrame(const std::string& id, const Answer& answer)
{
    return R"({"jsonrpc":"2.0","id":)" + id +
           (answer.IsError() ? R"(,"error":)" + answer.error : R"(,"result":)" + answer.result) + "}";
}

std::string NotifyFrame(const std::string& path, const std::string& version, const std::string& body)
{
    return R"({"jsonrpc":"2.0","method":"notify","params":{"path":)" + ToJson(path) + R"(,"version":)" + version +
           R"(,"body":)" + body + "}}";
}

std::string HeartbeatFrame(const std::string& guid, int status)
{
    return R"({"jsonrpc":"2.0","method":"heartbeat","params":{"guid":)" + ToJson(guid) + R"(,"status":)" +
           std::to_string(status) + "}}";
}

bool IsVerb(const std::string& method)
{
    return method == "get" || method == "post" || method == "put" || method == "delete";
}

} // namespace Gateway
