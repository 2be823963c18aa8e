#include "base/Utf8.h"
#include "platform/markup/WrittenRows.h"
#include <ProtoToMarkup.h>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <google/protobuf/util/json_util.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace
{

using google::protobuf::Descriptor;
using google::protobuf::EnumValueDescriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;

void CheckText(const FieldDescriptor& field, const std::string& text)
{
    if (field.type() == FieldDescriptor::TYPE_STRING && !Utf8::IsValid(text))
    {
        throw ProtoToMarkup::MarkupError("field " + field.full_name() + " is not UTF-8");
    }
}

void CheckTexts(const Message& message);

void CheckField(const Message& message, const FieldDescriptor& field)
{
    const Reflection& reflection = *message.GetReflection();
    const bool isMessage = field.cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE;
    if (!isMessage && field.cpp_type() != FieldDescriptor::CPPTYPE_STRING)
    {
        return;
    }
    std::string scratch;
    if (!field.is_repeated())
    {
        isMessage ? CheckTexts(reflection.GetMessage(message, &field))
                  : CheckText(field, reflection.GetStringReference(message, &field, &scratch));
        return;
    }
    for (int index = 0; index < reflection.FieldSize(message, &field); ++index)
    {
        isMessage ? CheckTexts(reflection.GetRepeatedMessage(message, &field, index))
                  : CheckText(field, reflection.GetRepeatedStringReference(message, &field, index, &scratch));
    }
}

/// protobuf would print a string that is not UTF-8 as an empty string.
void CheckTexts(const Message& message)
{
    std::vector<const FieldDescriptor*> fields;
    message.GetReflection()->ListFields(message, &fields);
    for (const FieldDescriptor* field : fields)
    {
        CheckField(message, *field);
    }
}

std::string Print(const Message& message, bool singleLine, bool allFields, bool enumsAsNumbers)
{
    google::protobuf::util::JsonPrintOptions options;
    options.preserve_proto_field_names = true;
    options.add_whitespace = !singleLine;
    options.always_print_primitive_fields = allFields;
    options.always_print_enums_as_ints = enumsAsNumbers;
    std::string json;
    const auto status = google::protobuf::util::MessageToJsonString(message, &json, options);
    if (!status.ok())
    {
        throw ProtoToMarkup::MarkupError(std::string(status.message()));
    }
    if (!json.empty() && json.back() == '\n') // the indented form ends in a newline
    {
        json.pop_back();
    }
    return json;
}

/// Writes the compact form for the field types that our records use. Others fall back to protobuf's printer, which is
/// five times slower (measured): it serializes the record and parses it again by its type. In long lists, only
/// changed elements are written again (WrittenRows).
/// Recursive: one stack frame per level of the record.
class LineWriter
{
public:
    explicit LineWriter(bool enumsAsNumbers)
        : m_enumsAsNumbers(enumsAsNumbers)
    {
    }

    void WriteRecord(const Message& message)
    {
        m_isOutermost = true;
        Write(message);
    }

    /// Returns false if the record has a field type that this class does not write.
    bool Take(std::string& json)
    {
        json = std::move(m_json);
        return !m_isForeign;
    }

private:
    void Write(const Message& message)
    {
        const bool isOutermost = std::exchange(m_isOutermost, false);
        if (message.GetDescriptor()->well_known_type() != Descriptor::WELLKNOWNTYPE_UNSPECIFIED)
        {
            m_isForeign = true;
            return;
        }
        std::vector<const FieldDescriptor*> fields;
        message.GetReflection()->ListFields(message, &fields);
        m_json += '{';
        const char* separator = "\"";
        for (const FieldDescriptor* const field : fields)
        {
            if (!field->is_extension())
            {
                m_json += std::exchange(separator, ",\"");
                m_json += field->name();
                m_json += "\":";
                if (!field->is_repeated())
                {
                    WriteValue(message, *field, -1);
                }
                else if (isOutermost && field->cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE && !field->is_map() &&
                         message.GetReflection()->FieldSize(message, field) >= WrittenRows::kLongList)
                {
                    WriteLongList(message, *field);
                }
                else
                {
                    WriteList(message, *field);
                }
            }
        }
        m_json += '}';
    }

    void WriteLongList(const Message& message, const FieldDescriptor& field)
    {
        thread_local WrittenRows s_rows;
        const Reflection& from = *message.GetReflection();
        const int size = from.FieldSize(message, &field);
        std::string binary;
        s_rows.Begin(field.message_type(), m_enumsAsNumbers);
        constexpr std::size_t kGrowth = 4096;
        m_json.reserve(m_json.size() + s_rows.Bytes() + kGrowth); // avoids about twenty reallocations
        m_json += '[';
        for (int index = 0; index < size; ++index)
        {
            m_json += index > 0 ? "," : "";
            const Message& row = from.GetRepeatedMessage(message, &field, index);
            row.SerializePartialToString(&binary);
            if (const std::string* const written = s_rows.Find(binary))
            {
                m_json += *written;
                continue;
            }
            const std::size_t begin = m_json.size();
            Write(row);
            if (m_isForeign) // the text is not used then
            {
                return;
            }
            s_rows.Add(binary, m_json.substr(begin));
        }
        m_json += ']';
        s_rows.End();
    }

    void WriteList(const Message& message, const FieldDescriptor& field)
    {
        m_isForeign = m_isForeign || field.is_map();
        const int size = message.GetReflection()->FieldSize(message, &field);
        m_json += '[';
        for (int index = 0; index < size; ++index)
        {
            m_json += index > 0 ? "," : "";
            WriteValue(message, field, index);
        }
        m_json += ']';
    }

    /// `index` is -1 for a field that is not a list.
    void WriteValue(const Message& message, const FieldDescriptor& field, int index)
    {
        const Reflection& from = *message.GetReflection();
        const bool isOne = index < 0;
        switch (field.cpp_type())
        {
        case FieldDescriptor::CPPTYPE_INT32:
            WriteNumber(isOne ? from.GetInt32(message, &field) : from.GetRepeatedInt32(message, &field, index));
            break;
        case FieldDescriptor::CPPTYPE_UINT32:
            WriteNumber(isOne ? from.GetUInt32(message, &field) : from.GetRepeatedUInt32(message, &field, index));
            break;
        case FieldDescriptor::CPPTYPE_INT64: // as strings: many JSON readers have no integers above 53 bits
            m_json += '"';
            WriteNumber(isOne ? from.GetInt64(message, &field) : from.GetRepeatedInt64(message, &field, index));
            m_json += '"';
            break;
        case FieldDescriptor::CPPTYPE_UINT64:
            m_json += '"';
            WriteNumber(isOne ? from.GetUInt64(message, &field) : from.GetRepeatedUInt64(message, &field, index));
            m_json += '"';
            break;
        case FieldDescriptor::CPPTYPE_DOUBLE:
        case FieldDescriptor::CPPTYPE_FLOAT:
            m_isForeign = true;
            break;
        case FieldDescriptor::CPPTYPE_BOOL:
            m_json += (isOne ? from.GetBool(message, &field) : from.GetRepeatedBool(message, &field, index)) ? "true"
                                                                                                             : "false";
            break;
        case FieldDescriptor::CPPTYPE_ENUM:
            WriteEnumerator(*(isOne ? from.GetEnum(message, &field) : from.GetRepeatedEnum(message, &field, index)));
            break;
        case FieldDescriptor::CPPTYPE_STRING:
        {
            std::string scratch;
            const std::string& text = isOne ? from.GetStringReference(message, &field, &scratch)
                                            : from.GetRepeatedStringReference(message, &field, index, &scratch);
            m_isForeign = m_isForeign || field.type() == FieldDescriptor::TYPE_BYTES;
            WriteText(text, field);
            break;
        }
        case FieldDescriptor::CPPTYPE_MESSAGE:
            Write(isOne ? from.GetMessage(message, &field) : from.GetRepeatedMessage(message, &field, index));
            break;
        }
    }

    template <class Integer>
    void WriteNumber(Integer value)
    {
        char digits[24];
        m_json.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
    }

    void WriteEnumerator(const EnumValueDescriptor& enumerator)
    {
        if (m_enumsAsNumbers)
        {
            WriteNumber(enumerator.number());
            return;
        }
        m_json += '"';
        m_json += enumerator.name();
        m_json += '"';
    }

    void WriteText(std::string_view text, const FieldDescriptor& field)
    {
        m_json += '"';
        std::size_t written = 0;
        for (std::size_t at = 0; at < text.size();)
        {
            const auto letter = static_cast<unsigned char>(text[at]);
            if (letter >= 0x80)
            {
                const std::size_t length = Utf8::SequenceLength(text, at);
                if (length == 0 && field.type() == FieldDescriptor::TYPE_STRING)
                {
                    throw ProtoToMarkup::MarkupError("field " + field.full_name() + " is not UTF-8");
                }
                at += std::max<std::size_t>(length, 1);
                continue;
            }
            if (letter < 0x20 || letter == '"' || letter == '\\')
            {
                m_json.append(text, written, at - written);
                WriteEscape(text[at]);
                written = at + 1;
            }
            ++at;
        }
        m_json.append(text, written);
        m_json += '"';
    }

    void WriteEscape(char letter)
    {
        constexpr std::string_view kLetters = "\"\\\b\f\n\r\t";
        constexpr std::string_view kEscapes = "\"\\bfnrt";
        constexpr char kHex[] = "0123456789abcdef";
        const std::size_t known = kLetters.find(letter);
        m_json += '\\';
        if (known != std::string_view::npos)
        {
            m_json += kEscapes[known];
            return;
        }
        const auto code = static_cast<unsigned char>(letter);
        m_json += "u00";
        m_json += kHex[code >> 4U];
        m_json += kHex[code & 0xFU];
    }

    const bool m_enumsAsNumbers;
    bool m_isOutermost = false;
    bool m_isForeign = false;
    std::string m_json;
};

} // namespace

std::string ProtoToMarkup::ToJson(const Message& message, bool singleLine, bool allFields, bool enumsAsNumbers)
{
    if (!message.IsInitialized())
    {
        throw MarkupError("missing field " + message.InitializationErrorString());
    }
    if (singleLine && !allFields)
    {
        LineWriter writer(enumsAsNumbers);
        writer.WriteRecord(message);
        if (std::string json; writer.Take(json))
        {
            return json;
        }
    }
    CheckTexts(message);
    return Print(message, singleLine, allFields, enumsAsNumbers);
}
