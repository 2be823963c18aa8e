#include "ProtoToMarkup.h"
#include "Utf8.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <google/protobuf/util/json_util.h>

#include <string>
#include <vector>

namespace
{

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

/// protobuf would print a text that is no UTF-8 as an empty one.
void CheckTexts(const Message& message)
{
    std::vector<const FieldDescriptor*> fields;
    message.GetReflection()->ListFields(message, &fields);
    for (const FieldDescriptor* field : fields)
    {
        CheckField(message, *field);
    }
}

} // namespace

std::string ProtoToMarkup::ToJson(const Message& message, bool singleLine, bool allFields, bool enumsAsNumbers)
{
    if (!message.IsInitialized())
    {
        throw MarkupError("missing field " + message.InitializationErrorString());
    }
    CheckTexts(message);

    google::protobuf::util::JsonPrintOptions options;
    options.preserve_proto_field_names = true;
    options.add_whitespace = !singleLine;
    options.always_print_primitive_fields = allFields;
    options.always_print_enums_as_ints = enumsAsNumbers;
    std::string json;
    const auto status = google::protobuf::util::MessageToJsonString(message, &json, options);
    if (!status.ok())
    {
        throw MarkupError(std::string(status.message()));
    }
    if (!json.empty() && json.back() == '\n') // the indented form ends its last line
    {
        json.pop_back();
    }
    return json;
}
