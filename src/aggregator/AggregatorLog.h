#pragma once

#include "runtime/DPrint.h"

#include <string>

namespace google::protobuf
{
class Message;
}

namespace SonarixService
{

/// The log channel of all files of this folder.
extern const DPrint s_aggregatorLog;

/// The record as JSON, for a log line. Never throws: for a record that has no JSON form it returns the reason.
std::string JsonForLog(const google::protobuf::Message& message, bool singleLine);

} // namespace SonarixService
