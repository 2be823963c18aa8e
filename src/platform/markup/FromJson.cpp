#include "base/JsonText.h"
#include "runtime/DPrint.h"
#include <ProtoToMarkup.h>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <google/protobuf/util/json_util.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <cstddef>
#include <limits>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>

namespace
{

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using nlohmann::json;

const DPrint s_log("ProtoToMarkup");

/// Logs an unknown enumerator once per value, not once per record: a newer neighbour sends it with every answer.
void LogUnknownEnumerator(const FieldDescriptor& field, const std::string& value)
{
    constexpr std::size_t kMaxLogged = 256;
    static std::mutex s_mutex;
    static std::set<std::string> s_logged;
    const std::string what = field.full_name() + ": " + value.substr(0, 64);
    const std::lock_guard lock(s_mutex);
    if (s_logged.size() < kMaxLogged && s_logged.insert(what).second)
    {
        DPRINT(s_log, DPrint::LEVEL_ERROR, "unknown enumerator, its field stays unset: " << what);
    }
}

bool IsWhole(const json& value)
{
    return value.is_number() && std::trunc(value.get<double>()) == value.get<double>();
}

bool IsKnownEnumerator(const json& value, const google::protobuf::EnumDescriptor& type)
{
    if (value.is_string() && type.FindValueByName(value.get<std::string>()) != nullptr)
    {
        return true;
    }
    const json number =
        value.is_string() ? json::parse(value.get<std::string>(), nullptr, /*allow_exceptions=*/false) : value;
    return (value.is_string() ? number.is_number_integer() : IsWhole(number)) &&
           std::fabs(number.get<double>()) <= std::numeric_limits<int>::max() &&
           type.FindValueByNumber(number.get<int>()) != nullptr;
}

const FieldDescriptor* FindField(const Descriptor& type, const std::string& key)
{
    const FieldDescriptor* const field = type.FindFieldByName(key);
    return field != nullptr ? field : type.FindFieldByCamelcaseName(key);
}

void Prepare(json& object, const Descriptor& type);

/// Prepares one value for protobuf's parser. An unknown enumerator becomes null, so its field stays unset.
void PrepareElement(json& value, const FieldDescriptor& field)
{
    if (field.cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE && value.is_object())
    {
        Prepare(value, *field.message_type());
    }
    else if (field.cpp_type() == FieldDescriptor::CPPTYPE_ENUM && (value.is_string() || IsWhole(value)))
    {
        if (!IsKnownEnumerator(value, *field.enum_type()))
        {
            LogUnknownEnumerator(field, value.dump(-1, ' ', /*ensure_ascii=*/true));
            value = nullptr;
        }
    }
    else if (value.is_array() || (field.cpp_type() == FieldDescriptor::CPPTYPE_ENUM && value.is_number()) ||
             (field.cpp_type() == FieldDescriptor::CPPTYPE_BOOL && !value.is_boolean()))
    {
        throw ProtoToMarkup::MarkupError("field " + field.full_name() + " has a value of another kind");
    }
}

/// Rejects what protobuf's parser would accept (a single value for a list, a list in a list, "true" as a string) and
/// removes what it would reject (unknown enumerators).
void Prepare(json& object, const Descriptor& type)
{
    for (const auto& [key, value] : object.items())
    {
        const FieldDescriptor* const field = FindField(type, key);
        if (field == nullptr || field->is_map() || value.is_null())
        {
            continue;
        }
        if (!field->is_repeated())
        {
            PrepareElement(value, *field);
            continue;
        }
        if (!value.is_array())
        {
            throw ProtoToMarkup::MarkupError("field " + field->full_name() + " is no list");
        }
        json kept = json::array();
        for (json& element : value)
        {
            if (!element.is_null())
            {
                PrepareElement(element, *field);
            }
            if (!element.is_null())
            {
                kept.push_back(std::move(element));
            }
        }
        value = std::move(kept);
    }
}

/// Parses strict JSON. protobuf's parser also accepts bare keys, single quotes and trailing commas.
json ParseObject(const std::string& text)
{
    // json::parse() would stop at a NUL and skip a byte order mark.
    if (text.find('\0') != std::string::npos || text.starts_with("\xef\xbb\xbf"))
    {
        throw ProtoToMarkup::MarkupError("no JSON");
    }
    if (JsonText::Check(text) == JsonText::Verdict::TOO_COMPLEX)
    {
        throw ProtoToMarkup::MarkupError("nested too deep, or too many members");
    }
    json document;
    try
    {
        document = json::parse(text);
    }
    catch (const json::parse_error& failure) // its text quotes the input, which may be invalid UTF-8
    {
        throw ProtoToMarkup::MarkupError("no JSON, from byte " + std::to_string(failure.byte) + " on");
    }
    catch (const json::exception&)
    {
        throw ProtoToMarkup::MarkupError("a number is out of range");
    }
    if (!document.is_object())
    {
        throw ProtoToMarkup::MarkupError("the JSON is no object");
    }
    return document;
}

/// Limits an error text, which may quote a value of any length and is sent in an error answer.
std::string Shorten(std::string text)
{
    constexpr std::size_t kMaxText = 300;
    if (text.size() > kMaxText)
    {
        std::size_t end = kMaxText;
        while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) // not inside a UTF-8 sequence
        {
            --end;
        }
        text.resize(end);
    }
    return text;
}

void Read(json& object, Message* message)
{
    Prepare(object, *message->GetDescriptor());
    google::protobuf::util::JsonParseOptions options;
    options.ignore_unknown_fields = true;
    const std::unique_ptr<Message> fresh(message->New());
    const auto status = google::protobuf::util::JsonStringToMessage(object.dump(), fresh.get(), options);
    if (!status.ok())
    {
        throw ProtoToMarkup::MarkupError(Shorten(std::string(status.message())));
    }
    message->GetReflection()->Swap(message, fresh.get());
}

} // namespace

void ProtoToMarkup::FromJson(const std::string& json, Message* message)
{
    nlohmann::json object = ParseObject(json);
    Read(object, message);
}

void ProtoToMarkup::FromJson(const std::string& json, Message* message, const std::string& name)
{
    nlohmann::json object = ParseObject(json);
    const bool isWrapped = object.size() == 1 && object.begin().key() == name && object.begin()->is_object();
    Read(isWrapped ? *object.begin() : object, message);
}
