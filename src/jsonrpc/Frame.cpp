#include "jsonrpc/Frame.h"

#include "base/JsonText.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <limits>

namespace JsonRpc
{
namespace
{

using Json = nlohmann::ordered_json; // keeps the order of a body's members

std::string Dump(const Json& value)
{
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

/// JSON text of a body or result. JsonText::ReadFrame may have replaced it by null and returned its text as `body`.
std::string BodyText(const Json& value, const std::string& body)
{
    return value.is_null() && !body.empty() ? body : Dump(value);
}

std::string Text(const Json& object, const char* key)
{
    const auto found = object.find(key);
    return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

/// A value beyond the range of int becomes the nearest int.
int Number(const Json& object, const char* key)
{
    const auto found = object.find(key);
    if (found == object.end() || !found->is_number_integer())
    {
        return 0;
    }
    return static_cast<int>(std::clamp<std::int64_t>(found->get<std::int64_t>(), std::numeric_limits<int>::min(),
                                                     std::numeric_limits<int>::max()));
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

Params ReadParams(const Json& document, const std::string& body)
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
    params.status = Number(*found, "status");
    if (const auto value = found->find("body"); value != found->end())
    {
        params.body = BodyText(*value, body);
    }
    return params;
}

Json ErrorData(int subcode, const std::string& guid)
{
    return {{"subcode", subcode}, {"guid", guid}};
}

Answer ReadAnswer(const Json& document, const std::string& body)
{
    if (const auto result = document.find("result"); result != document.end())
    {
        return Answer::Result(BodyText(*result, body));
    }
    const auto found = document.find("error");
    if (found == document.end() || !found->is_object())
    {
        return Answer::Error(INTERNAL_ERROR, "the answer holds neither result nor error", {});
    }
    Answer answer;
    answer.code = Number(*found, "code");
    const auto data = found->find("data");
    const Json error = {{"code", answer.code},
                        {"message", Text(*found, "message")},
                        {"data", data != found->end() && data->is_object() ? *data : ErrorData(0, {})}};
    answer.error = Dump(error);
    return answer;
}

/// Reserves once: bodies may be megabytes.
void AppendPathParams(std::string& text, const std::string& path, const std::string& version, const std::string& body)
{
    const std::string quotedPath = Dump(path);
    text.reserve(text.size() + quotedPath.size() + version.size() + body.size() + 64);
    text += R"({"path":)" + quotedPath + R"(,"version":)" + version;
    text += body.empty() ? "" : ",\"body\":";
    text += body;
    text += '}';
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

Answer Answer::Error(int code, const std::string& message, const std::string& guid, int subcode)
{
    const Json error = {{"code", code}, {"message", message}, {"data", ErrorData(subcode, guid)}};
    Answer answer;
    answer.code = code;
    answer.error = Dump(error);
    return answer;
}

Frame FrameFromText(const std::string& text)
{
    const JsonText::Frame parts = JsonText::ReadFrame(text);
    if (parts.verdict == JsonText::Verdict::TOO_COMPLEX) // writing a value needs one stack frame per level
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

std::string PathParams(const std::string& path, const std::string& version, const std::string& body)
{
    std::string params;
    AppendPathParams(params, path, version, body);
    return params;
}

std::string TextFromCall(const std::string& id, const std::string& method, const std::string& params)
{
    return R"({"jsonrpc":"2.0","id":)" + id + R"(,"method":")" + method + R"(","params":)" + params + "}";
}

std::string TextFromRequest(const std::string& id, const Request& request)
{
    static const std::string s_none;
    return TextFromCall(id, request.verb,
                        PathParams(request.path, request.version, request.body ? *request.body : s_none));
}

std::string TextFromAnswer(const std::string& id, const Answer& answer)
{
    return R"({"jsonrpc":"2.0","id":)" + id +
           (answer.IsError() ? R"(,"error":)" + answer.error : R"(,"result":)" + answer.result) + "}";
}

std::string TextFromNotification(const std::string& path, const std::string& version, const std::string& body)
{
    std::string text = R"({"jsonrpc":"2.0","method":"notify","params":)";
    AppendPathParams(text, path, version, body);
    text += '}';
    return text;
}

std::string TextFromHeartbeat(const std::string& guid, int status)
{
    return R"({"jsonrpc":"2.0","method":"heartbeat","params":)" + Dump({{"guid", guid}, {"status", status}}) + "}";
}

std::string OpenParams(const std::string& service, const std::string& guid)
{
    return Dump({{"service", service}, {"guid", guid}});
}

std::string SubscribeParams(const std::string& path, const std::string& version, int scope)
{
    return R"({"path":)" + Dump(path) + R"(,"version":)" + version + R"(,"scope":)" + std::to_string(scope) + "}";
}

std::string ServeParams(const std::string& verb, const std::string& path, int scope, const std::string& version,
                        const std::string& label)
{
    return R"({"verb":")" + verb + R"(","label":)" + Dump(label) + "," +
           SubscribeParams(path, version, scope).substr(1);
}

std::string VersionFromNumber(double version)
{
    return Dump(version);
}

std::string RecordFromAnswer(const Answer& answer)
{
    if (!answer.IsError())
    {
        return {};
    }
    const Json error = Json::parse(answer.error);
    return Dump({{"code", answer.code},
                 {"subcode", Number(error["data"], "subcode")},
                 {"message", Text(error, "message")},
                 {"guid", Text(error["data"], "guid")}});
}

Answer AnswerFromRecord(const std::string& record)
{
    const Json fields = Json::parse(record, nullptr, /*allow_exceptions=*/false);
    return fields.is_object() ? Answer::Error(Number(fields, "code"), Text(fields, "message"), Text(fields, "guid"),
                                              Number(fields, "subcode"))
                              : Answer::Error(0, {}, {});
}

bool IsVerb(const std::string& method)
{
    return method == "get" || method == "post" || method == "put" || method == "delete";
}

bool IsJson(const std::string& text)
{
    return JsonText::Check(text) == JsonText::Verdict::JSON;
}

} // namespace JsonRpc
