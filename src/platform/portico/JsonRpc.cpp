#include "platform/portico/JsonRpc.h"

#include "base/JsonText.h"

#include <nlohmann/json.hpp>

namespace
{

using json = nlohmann::ordered_json; // a person reads the fields in the order of the record
using Portico::JsonRpc::Frame;
using Portico::JsonRpc::Kind;

std::string Dump(const json& value)
{
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

/// What the frame carries at the place of `value`: the text that was taken out there, or the value itself.
std::string Carried(const json& value, const std::string& body)
{
    return value.is_null() && !body.empty() ? body : Dump(value);
}

std::string Text(const json& object, const char* key)
{
    const auto found = object.find(key);
    return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

int Number(const json& object, const char* key)
{
    const auto found = object.find(key);
    return found != object.end() && found->is_number_integer() ? found->get<int>() : 0;
}

Frame Invalid(const char* reason)
{
    Frame frame;
    frame.body = reason;
    return frame;
}

Frame ParseCall(const json& document, const std::string& takenBody)
{
    Frame frame;
    frame.method = Text(document, "method");
    const auto params = document.find("params");
    if (frame.method.empty() || (params != document.end() && !params->is_object()))
    {
        return Invalid("no method, or params that are no object");
    }
    if (params != document.end())
    {
        frame.path = Text(*params, "path");
        frame.guid = Text(*params, "guid");
        frame.status = Number(*params, "status");
        const auto body = params->find("body");
        frame.body = body != params->end() ? Carried(*body, takenBody) : std::string();
    }
    const auto id = document.find("id");
    frame.kind = id != document.end() ? Kind::REQUEST : Kind::NOTIFICATION;
    frame.id = id != document.end() ? Dump(*id) : std::string();
    return frame;
}

Frame ParseAnswer(const json& document, const std::string& takenBody)
{
    Frame frame;
    const auto id = document.find("id");
    frame.id = id != document.end() ? Dump(*id) : std::string("null");
    const auto result = document.find("result");
    if (result != document.end())
    {
        frame.kind = Kind::RESULT;
        frame.body = Carried(*result, takenBody);
        return frame;
    }
    const auto error = document.find("error");
    if (error == document.end() || !error->is_object())
    {
        return Invalid("neither call nor answer");
    }
    const auto data = error->find("data");
    const bool hasData = data != error->end() && data->is_object();
    frame.kind = Kind::ERROR;
    frame.body = Portico::JsonRpc::ErrorBody(Number(*error, "code"), hasData ? Number(*data, "subcode") : 0,
                                             Text(*error, "message"), hasData ? Text(*data, "guid") : std::string());
    return frame;
}

} // namespace

namespace Portico::JsonRpc
{

Frame Parse(const std::string& text)
{
    const JsonText::Frame parts = JsonText::ReadFrame(text);
    if (parts.verdict == JsonText::Verdict::TOO_COMPLEX) // bodies may be written out again, a stack frame a level
    {
        return Invalid("nested too deep, or too many members");
    }
    const json document = json::parse(parts.envelope, nullptr, /*allow_exceptions=*/false);
    if (!document.is_object())
    {
        return Invalid("no JSON object");
    }
    return document.contains("method") ? ParseCall(document, parts.body) : ParseAnswer(document, parts.body);
}

std::string Request(std::uint64_t id, const std::string& method, const std::string& params)
{
    return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) + R"(,"method":")" + method + R"(","params":)" + params +
           "}";
}

std::string Notify(const std::string& path, double version, const std::string& body)
{
    std::string frame = R"({"jsonrpc":"2.0","method":"notify","params":)" + PathParams(path, version, {});
    frame.pop_back();
    frame.reserve(frame.size() + body.size() + 16); // bodies are large, and this is a copy of it already
    frame += body.empty() ? "" : ",\"body\":";
    frame += body;
    frame += "}}";
    return frame;
}

std::string Result(const std::string& id, const std::string& result)
{
    return R"({"jsonrpc":"2.0","id":)" + id + R"(,"result":)" + result + "}";
}

std::string Error(const std::string& id, const std::string& errorBody)
{
    const json body = json::parse(errorBody, nullptr, /*allow_exceptions=*/false);
    json error = {{"code", 0}, {"message", ""}, {"data", {{"subcode", 0}, {"guid", ""}}}};
    if (body.is_object())
    {
        error = {{"code", Number(body, "code")},
                 {"message", Text(body, "message")},
                 {"data", {{"subcode", Number(body, "subcode")}, {"guid", Text(body, "guid")}}}};
    }
    return R"({"jsonrpc":"2.0","id":)" + id + R"(,"error":)" + Dump(error) + "}";
}

std::string OpenParams(const std::string& service, const std::string& guid)
{
    return Dump({{"service", service}, {"guid", guid}});
}

std::string PathParams(const std::string& path, double version, const std::string& body)
{
    std::string params = Dump({{"path", path}, {"version", version}});
    if (!body.empty())
    {
        params.insert(params.size() - 1, ",\"body\":" + body);
    }
    return params;
}

std::string SubscribeParams(const std::string& path, double version, int scope)
{
    return Dump({{"path", path}, {"version", version}, {"scope", scope}});
}

std::string ServeParams(const std::string& verb, const std::string& path, int scope, double version,
                        const std::string& label)
{
    return Dump({{"verb", verb}, {"path", path}, {"scope", scope}, {"version", version}, {"label", label}});
}

std::string ErrorBody(int code, int subcode, const std::string& message, const std::string& guid)
{
    return Dump({{"code", code}, {"subcode", subcode}, {"message", message}, {"guid", guid}});
}

int ErrorCode(const std::string& errorBody)
{
    const json body = json::parse(errorBody, nullptr, /*allow_exceptions=*/false);
    return body.is_object() ? Number(body, "code") : 0;
}

bool IsJson(const std::string& text)
{
    return JsonText::Check(text) == JsonText::Verdict::JSON;
}

} // namespace Portico::JsonRpc
