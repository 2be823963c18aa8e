#pragma once

#include "runtime/DPrint.h"

#include <string>

namespace google::protobuf
{
class Message;
}

namespace SonarixService
{

/// The one log channel of this folder's files.
extern const DPrint s_aggregatorLog;

/// The JSON of a record for a log line. Never throws: where the record has no JSON form it says why.
std::string JsonForLog(const google::protobuf::Message& message, bool singleLine);

} // namespace SonarixService
