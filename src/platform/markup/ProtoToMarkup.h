#pragma once

#include <stdexcept>
#include <string>

namespace google::protobuf
{
class Message;
}

/// The JSON form of records: field names as in the schema, enumerators by name, unset fields omitted, unknown fields
/// ignored. Stateless, safe from any thread.
/// Reading: a field with an unknown enumerator (name or number) stays unset, and a list loses that element. Null
/// means unset. Numbers may be strings. The last of duplicate keys counts.
namespace ProtoToMarkup
{

/// Thrown by FromJson and ToJson.
class MarkupError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// `singleLine` false indents the text. `allFields` also prints unset scalars, with their defaults. `enumsAsNumbers`
/// prints enumerators as numbers. Throws MarkupError if a string is not UTF-8 or a required field is missing.
std::string ToJson(const google::protobuf::Message& message, bool singleLine, bool allFields, bool enumsAsNumbers);

/// Replaces `message` with the content of `json`. Throws MarkupError, and leaves `message` unchanged, if the text is
/// not exactly one JSON object in UTF-8, a value or list has the wrong type, or a required field is missing.
void FromJson(const std::string& json, google::protobuf::Message* message);

/// Like FromJson() above, but first unwraps an object whose only key is `name`.
void FromJson(const std::string& json, google::protobuf::Message* message, const std::string& name);

} // namespace ProtoToMarkup
