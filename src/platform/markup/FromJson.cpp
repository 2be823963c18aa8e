#include "DPrint.h"
#include "JsonNesting.h"
#include "ProtoToMarkup.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <google/protobuf/util/json_util.h>
#include <nlohmann/json.hpp>

#include <cstddef>
#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace
{

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using nlohmann::json;

const DPrint s_log("ProtoToMarkup");

/// One line for each enumerator that we do not know, not one for each record that holds it: a neighbour of a later
/// generation sends it with every answer.
void TellUnknownEnumerator(const FieldDescriptor& field, const std::string& value)
{
    constexpr std::size_t kMaxTold = 256;
    static std::mutex s_mutex;
    static std::set<std::string> s_told;
    const std::string what = field.full_name() + ": " + value.substr(0, 64);
    const std::lock_guard lock(s_mutex);
    if (s_told.size() < kMaxTold && s_told.insert(what).second)
    {
        DPRINT(s_log, DPrint::LEVEL_ERROR, "unknown enumerator, its field stays unset: " << what);
    }
}

bool IsKnownEnumerator(const json& value, const google::protobuf::EnumDescriptor& type)
{
    if (value.is_string())
    {
        return type.FindValueByName(value.get<std::string>()) != nullptr;
    }
    return !value.is_number_integer() || type.FindValueByNumber(value.get<int>()) != nullptr;
}

const FieldDescriptor* FindField(const Descriptor& type, const std::string& key)
{
    const FieldDescriptor* const field = type.FindFieldByName(key);
    return field != nullptr ? field : type.FindFieldByCamelcaseName(key);
}

void CheckKinds(const json& object, const Descriptor& type);

void CheckElement(const json& value, const FieldDescriptor& field)
{
    if (field.cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE && value.is_object())
    {
        CheckKinds(value, *field.message_type());
    }
    if (field.cpp_type() == FieldDescriptor::CPPTYPE_ENUM && !IsKnownEnumerator(value, *field.enum_type()))
    {
        TellUnknownEnumerator(field, value.is_string() ? value.get<std::string>() : value.dump());
    }
    if (field.cpp_type() == FieldDescriptor::CPPTYPE_BOOL && !value.is_boolean())
    {
        throw ProtoToMarkup::MarkupError("field " + field.full_name() + " is no boolean");
    }
}

/// What protobuf's reader lets pass: one value where a list belongs, "true" as a text.
void CheckKinds(const json& object, const Descriptor& type)
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
            CheckElement(value, *field);
            continue;
        }
        if (!value.is_array())
        {
            throw ProtoToMarkup::MarkupError("field " + field->full_name() + " is no list");
        }
        for (const json& element : value)
        {
            CheckElement(element, *field);
        }
    }
}

/// Reads strict JSON: protobuf's own reader takes bare keys, single quotes and trailing commas too.
json ParseObject(const std::string& text)
{
    if (JsonText::IsNestedTooDeep(text))
    {
        throw ProtoToMarkup::MarkupError("nested too deep");
    }
    json document;
    try
    {
        document = json::parse(text);
    }
    catch (const json::parse_error& failure) // its own text quotes the input, which may be no UTF-8
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

/// The text may quote a value of any length, and travels on in an error answer.
std::string Shorten(std::string text)
{
    constexpr std::size_t kMaxText = 300;
    if (text.size() > kMaxText)
    {
        std::size_t end = kMaxText;
        while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) // not within a character
        {
            --end;
        }
        text.resize(end);
    }
    return text;
}

void Read(const std::string& text, const json& object, Message* message)
{
    CheckKinds(object, *message->GetDescriptor());
    google::protobuf::util::JsonParseOptions options;
    options.ignore_unknown_fields = true;
    const std::unique_ptr<Message> fresh(message->New());
    const auto status = google::protobuf::util::JsonStringToMessage(text, fresh.get(), options);
    if (!status.ok())
    {
        throw ProtoToMarkup::MarkupError(Shorten(std::string(status.message())));
    }
    fresh->DiscardUnknownFields(); // an enumerator that came by a number that we do not know
    message->GetReflection()->Swap(message, fresh.get());
}

} // namespace

void ProtoToMarkup::FromJson(const std::string& json, Message* message)
{
    Read(json, ParseObject(json), message);
}

void ProtoToMarkup::FromJson(const std::string& json, Message* message, const std::string& name)
{
    const nlohmann::json object = ParseObject(json);
    if (object.size() == 1 && object.begin().key() == name && object.begin()->is_object())
    {
        Read(object.begin()->dump(), *object.begin(), message);
        return;
    }
    Read(json, object, message);
}
