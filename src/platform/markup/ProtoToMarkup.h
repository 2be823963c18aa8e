#pragma once

#include <stdexcept>
#include <string>

namespace google::protobuf
{
class Message;
}

/// The JSON form of records: field names as in the schema, enumerators by name, unset fields left out, unknown
/// fields ignored. Stateless, safe from any thread.
/// Reading: an enumerator that is not known, by name or by number, is left out, so that its field stays unset (a
/// list loses that element); null is unset; a number may be quoted; of a key given twice the last counts.
namespace ProtoToMarkup
{

/// What FromJson and ToJson report a failure by.
class MarkupError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// `singleLine` false indents the text. `allFields` prints unset scalars with their defaults. `enumsAsNumbers`
/// gives enumerators by value. Throws MarkupError where a string of the record is not UTF-8 or a required field is
/// missing.
std::string ToJson(const google::protobuf::Message& message, bool singleLine, bool allFields, bool enumsAsNumbers);

/// Replaces `message` by what `json` holds. Throws MarkupError, and leaves `message` as it was, where the text
/// is no JSON object (UTF-8, with nothing behind it), a field has a value of another kind, a list is no list, or a
/// required field is missing.
void FromJson(const std::string& json, google::protobuf::Message* message);

/// The same; an object whose sole key is `name` is unwrapped first.
void FromJson(const std::string& json, google::protobuf::Message* message, const std::string& name);

} // namespace ProtoToMarkup
