#include "examples/markup_nlohmann/Base64.h"
#include "runtime/DPrint.h"
#include <ProtoToMarkup.h>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>

using google::protobuf::EnumDescriptor;
using google::protobuf::EnumValueDescriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;
using nlohmann::json;
using ProtoToMarkup::MarkupError;

namespace
{

const DPrint s_log("ProtoToMarkup");

constexpr int kMaxNesting = 100;        // reading a record takes one stack frame per level
constexpr std::size_t kMaxLogged = 256; // bounds the memory for values from the network
constexpr std::size_t kMaxLoggedBytes = 64;

[[noreturn]] void Refuse(const FieldDescriptor& field, const char* wanted)
{
    throw MarkupError(field.full_name() + ": " + wanted);
}

json Parse(const std::string& text)
{
    const auto bound = [](int depth, json::parse_event_t, json&)
    {
        if (depth > kMaxNesting)
        {
            throw MarkupError("nested too deep");
        }
        return true;
    };
    // The parser would stop at a NUL and skip a byte order mark.
    if (text.find('\0') != std::string::npos || text.starts_with("\xef\xbb\xbf"))
    {
        throw MarkupError("no JSON");
    }
    json document;
    try
    {
        document = json::parse(text, bound);
    }
    catch (const json::parse_error& error) // its text quotes the input
    {
        throw MarkupError("no JSON in UTF-8, at byte " + std::to_string(error.byte));
    }
    catch (const json::exception&)
    {
        throw MarkupError("a number is out of range");
    }
    if (!document.is_object())
    {
        throw MarkupError("no JSON object");
    }
    return document;
}

/// The number in a JSON number or in a string.
std::optional<json> NumberIn(const json& value)
{
    if (!value.is_string())
    {
        return value.is_number() ? std::optional<json>(value) : std::nullopt;
    }
    const auto& text = value.get_ref<const std::string&>();
    json inner = json::parse(text, nullptr, /*allow_exceptions=*/false);
    const bool isNumber = inner.is_number() && text.find_first_of(" \t\r\n") == std::string::npos;
    return isNumber ? std::optional<json>(std::move(inner)) : std::nullopt;
}

template <class T>
T Integer(const json& value, const FieldDescriptor& field)
{
    constexpr T kLowest = std::numeric_limits<T>::min();
    constexpr T kHighest = std::numeric_limits<T>::max();
    const std::optional<json> number = NumberIn(value);
    if (number && number->is_number_unsigned() && std::in_range<T>(number->get<std::uint64_t>()))
    {
        return static_cast<T>(number->get<std::uint64_t>());
    }
    if (number && number->is_number_integer() && !number->is_number_unsigned() &&
        std::in_range<T>(number->get<std::int64_t>()))
    {
        return static_cast<T>(number->get<std::int64_t>());
    }
    if (number && number->is_number_float())
    {
        const auto whole = number->get<double>(); // as 3.0 or 2e3; the upper bound itself may not be a double
        if (std::trunc(whole) == whole && whole >= static_cast<double>(kLowest) &&
            whole < std::ldexp(1.0, std::numeric_limits<T>::digits) && whole <= static_cast<double>(kHighest))
        {
            return static_cast<T>(whole);
        }
    }
    Refuse(field, "an integer of its range is wanted");
}

double Real(const json& value, const FieldDescriptor& field, double highest)
{
    if (value == "NaN")
    {
        return std::numeric_limits<double>::quiet_NaN();
    }
    if (value == "Infinity" || value == "-Infinity")
    {
        return value == "Infinity" ? HUGE_VAL : -HUGE_VAL;
    }
    const std::optional<json> number = NumberIn(value);
    const double real = number ? number->get<double>() : HUGE_VAL;
    if (!(std::fabs(real) <= highest))
    {
        Refuse(field, "a number of its range is wanted");
    }
    return real;
}

void LogOnce(const FieldDescriptor& field, const json& value)
{
    static std::mutex s_mutex;
    static std::set<std::string>& s_logged = *new std::set<std::string>; // other threads may outlive the statics
    // Cut and in JSON's own quotes: a neighbour's text puts no line breaks into the log.
    const json shown = value.is_string() ? json(value.get<std::string>().substr(0, kMaxLoggedBytes)) : value;
    const std::string text = field.full_name() + ": unknown enumerator " +
                             shown.dump(-1, ' ', true, json::error_handler_t::replace) + " is left out";
    {
        const std::lock_guard lock(s_mutex);
        if (s_logged.size() >= kMaxLogged || !s_logged.insert(text).second)
        {
            return;
        }
    }
    DPRINT(s_log, DPrint::LEVEL_ERROR, text);
}

/// Null, with a log line, if the schema does not have it.
const EnumValueDescriptor* Enumerator(const json& value, const FieldDescriptor& field)
{
    const EnumDescriptor& type = *field.enum_type();
    const std::optional<json> number = NumberIn(value);
    const double real = number ? number->get<double>() : HUGE_VAL;
    const bool isWhole = std::isfinite(real) && std::trunc(real) == real;
    const EnumValueDescriptor* found = nullptr;
    if (value.is_string())
    {
        found = type.FindValueByName(value.get<std::string>());
    }
    else if (!isWhole)
    {
        Refuse(field, "an enumerator is wanted");
    }
    if (found == nullptr && isWhole && std::fabs(real) <= std::numeric_limits<int>::max())
    {
        found = type.FindValueByNumber(static_cast<int>(real));
    }
    if (found == nullptr)
    {
        LogOnce(field, value);
    }
    return found;
}

void ReadMessage(const json& object, Message& message);

/// Sets the field, or appends to its list.
void ReadValue(const json& value, Message& message, const FieldDescriptor& field)
{
    const Reflection& to = *message.GetReflection();
    const auto put = [&](auto set, auto add, const auto& converted)
    { field.is_repeated() ? (to.*add)(&message, &field, converted) : (to.*set)(&message, &field, converted); };
    switch (field.cpp_type())
    {
    case FieldDescriptor::CPPTYPE_INT32:
        return put(&Reflection::SetInt32, &Reflection::AddInt32, Integer<std::int32_t>(value, field));
    case FieldDescriptor::CPPTYPE_INT64:
        return put(&Reflection::SetInt64, &Reflection::AddInt64, Integer<std::int64_t>(value, field));
    case FieldDescriptor::CPPTYPE_UINT32:
        return put(&Reflection::SetUInt32, &Reflection::AddUInt32, Integer<std::uint32_t>(value, field));
    case FieldDescriptor::CPPTYPE_UINT64:
        return put(&Reflection::SetUInt64, &Reflection::AddUInt64, Integer<std::uint64_t>(value, field));
    case FieldDescriptor::CPPTYPE_DOUBLE:
        return put(&Reflection::SetDouble, &Reflection::AddDouble,
                   Real(value, field, std::numeric_limits<double>::max()));
    case FieldDescriptor::CPPTYPE_FLOAT:
        return put(&Reflection::SetFloat, &Reflection::AddFloat,
                   static_cast<float>(Real(value, field, std::numeric_limits<float>::max())));
    case FieldDescriptor::CPPTYPE_BOOL:
        if (!value.is_boolean())
        {
            Refuse(field, "true or false is wanted");
        }
        return put(&Reflection::SetBool, &Reflection::AddBool, value.get<bool>());
    case FieldDescriptor::CPPTYPE_ENUM:
        if (const EnumValueDescriptor* const enumerator = Enumerator(value, field))
        {
            put(&Reflection::SetEnum, &Reflection::AddEnum, enumerator);
        }
        return;
    case FieldDescriptor::CPPTYPE_STRING:
    {
        if (!value.is_string())
        {
            Refuse(field, "a text is wanted");
        }
        std::optional<std::string> text = value.get<std::string>();
        if (field.type() == FieldDescriptor::TYPE_BYTES && !(text = Base64::Decode(*text)))
        {
            Refuse(field, "bytes in base64 are wanted");
        }
        field.is_repeated() ? to.AddString(&message, &field, std::move(*text))
                            : to.SetString(&message, &field, std::move(*text));
        return;
    }
    case FieldDescriptor::CPPTYPE_MESSAGE:
        if (!value.is_object())
        {
            Refuse(field, "an object is wanted");
        }
        return ReadMessage(value, field.is_repeated() ? *to.AddMessage(&message, &field)
                                                      : *to.MutableMessage(&message, &field));
    }
}

void ReadMessage(const json& object, Message& message)
{
    for (const auto& [name, value] : object.items())
    {
        const FieldDescriptor* field = message.GetDescriptor()->FindFieldByName(name);
        field = field != nullptr ? field : message.GetDescriptor()->FindFieldByCamelcaseName(name);
        if (field == nullptr || value.is_null())
        {
            continue;
        }
        if (!field->is_repeated())
        {
            ReadValue(value, message, *field);
            continue;
        }
        if (!value.is_array())
        {
            Refuse(*field, "a list is wanted");
        }
        for (const json& element : value)
        {
            if (!element.is_null())
            {
                ReadValue(element, message, *field);
            }
        }
    }
}

void Replace(const json& document, Message* message)
{
    const std::unique_ptr<Message> read(message->New());
    ReadMessage(document, *read);
    if (!read->IsInitialized())
    {
        throw MarkupError(message->GetDescriptor()->name() + ": a required field is missing");
    }
    message->GetReflection()->Swap(message, read.get());
}

} // namespace

void ProtoToMarkup::FromJson(const std::string& text, Message* message)
{
    Replace(Parse(text), message);
}

void ProtoToMarkup::FromJson(const std::string& text, Message* message, const std::string& name)
{
    json document = Parse(text);
    if (const auto root = document.find(name); document.size() == 1 && root != document.end() && root->is_object())
    {
        Replace(*root, message);
        return;
    }
    Replace(document, message);
}
