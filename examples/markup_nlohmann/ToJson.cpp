#include "examples/markup_nlohmann/Base64.h"
#include <ProtoToMarkup.h>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <string>
#include <vector>

using google::protobuf::EnumValueDescriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;
using json = nlohmann::ordered_json; // keeps the order of the record's fields

namespace
{

/// Recursive: one stack frame per level of the record.
class Writer
{
public:
    Writer(bool allFields, bool enumsAsNumbers)
        : m_allFields(allFields)
        , m_enumsAsNumbers(enumsAsNumbers)
    {
    }

    json Write(const Message& message) const
    {
        const auto* const descriptor = message.GetDescriptor();
        std::vector<const FieldDescriptor*> fields;
        message.GetReflection()->ListFields(message, &fields); // the fields that are set, by number
        if (m_allFields)
        {
            fields.clear();
            for (int index = 0; index < descriptor->field_count(); ++index)
            {
                const FieldDescriptor* const field = descriptor->field(index);
                const bool isScalar = field->cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE && !field->is_repeated();
                if (isScalar || IsSet(message, *field))
                {
                    fields.push_back(field);
                }
            }
        }
        json object = json::object();
        for (const FieldDescriptor* field : fields)
        {
            if (!field->is_extension())
            {
                object.emplace(field->name(),
                               field->is_repeated() ? WriteList(message, *field) : WriteValue(message, *field, -1));
            }
        }
        return object;
    }

private:
    static bool IsSet(const Message& message, const FieldDescriptor& field)
    {
        const Reflection& reflection = *message.GetReflection();
        return field.is_repeated() ? reflection.FieldSize(message, &field) > 0 : reflection.HasField(message, &field);
    }

    json WriteList(const Message& message, const FieldDescriptor& field) const
    {
        json list = json::array();
        const int size = message.GetReflection()->FieldSize(message, &field);
        for (int index = 0; index < size; ++index)
        {
            list.push_back(WriteValue(message, field, index));
        }
        return list;
    }

    /// `index` is -1 for a field that is not a list.
    json WriteValue(const Message& message, const FieldDescriptor& field, int index) const
    {
        const Reflection& from = *message.GetReflection();
        const bool isOne = index < 0;
        switch (field.cpp_type())
        {
        case FieldDescriptor::CPPTYPE_INT32:
            return isOne ? from.GetInt32(message, &field) : from.GetRepeatedInt32(message, &field, index);
        case FieldDescriptor::CPPTYPE_UINT32:
            return isOne ? from.GetUInt32(message, &field) : from.GetRepeatedUInt32(message, &field, index);
        // As strings: many JSON readers have no integers above 53 bits.
        case FieldDescriptor::CPPTYPE_INT64:
            return std::to_string(isOne ? from.GetInt64(message, &field)
                                        : from.GetRepeatedInt64(message, &field, index));
        case FieldDescriptor::CPPTYPE_UINT64:
            return std::to_string(isOne ? from.GetUInt64(message, &field)
                                        : from.GetRepeatedUInt64(message, &field, index));
        case FieldDescriptor::CPPTYPE_DOUBLE:
            return Number(isOne ? from.GetDouble(message, &field) : from.GetRepeatedDouble(message, &field, index));
        case FieldDescriptor::CPPTYPE_FLOAT:
            return Number(static_cast<double>(isOne ? from.GetFloat(message, &field)
                                                    : from.GetRepeatedFloat(message, &field, index)));
        case FieldDescriptor::CPPTYPE_BOOL:
            return isOne ? from.GetBool(message, &field) : from.GetRepeatedBool(message, &field, index);
        case FieldDescriptor::CPPTYPE_ENUM:
            return Enumerator(*(isOne ? from.GetEnum(message, &field) : from.GetRepeatedEnum(message, &field, index)));
        case FieldDescriptor::CPPTYPE_STRING:
        {
            std::string text = isOne ? from.GetString(message, &field) : from.GetRepeatedString(message, &field, index);
            return field.type() == FieldDescriptor::TYPE_BYTES ? Base64::Encode(text) : std::move(text);
        }
        case FieldDescriptor::CPPTYPE_MESSAGE:
            return Write(isOne ? from.GetMessage(message, &field) : from.GetRepeatedMessage(message, &field, index));
        }
        return nullptr;
    }

    static json Number(double value)
    {
        if (std::isfinite(value))
        {
            return value;
        }
        return std::isnan(value) ? "NaN" : value > 0 ? "Infinity" : "-Infinity";
    }

    json Enumerator(const EnumValueDescriptor& enumerator) const
    {
        return m_enumsAsNumbers ? json(enumerator.number()) : json(enumerator.name());
    }

    const bool m_allFields;
    const bool m_enumsAsNumbers;
};

} // namespace

std::string ProtoToMarkup::ToJson(const Message& message, bool singleLine, bool allFields, bool enumsAsNumbers)
{
    if (!message.IsInitialized())
    {
        throw MarkupError(message.GetDescriptor()->name() + ": a required field is missing");
    }
    try
    {
        return Writer(allFields, enumsAsNumbers).Write(message).dump(singleLine ? -1 : 1);
    }
    catch (const json::type_error&)
    {
        throw MarkupError(message.GetDescriptor()->name() + ": a text is not UTF-8");
    }
}
