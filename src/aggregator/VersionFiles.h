#pragma once

#include "schemas/SXCommon.pb.h"

#include <string>

namespace SonarixService
{

// What the product's files say about its software. Read at start; a file that is missing is no error, and one that
// does not parse costs a level-1 line and leaves its fields empty.

/// SONARIX_ETC_DIR where it is set, even to nothing, else "/opt/Kova/etc/". File names are appended as they are.
std::string ResolveEtcDir();

/// Each versions file speaks for its own subsystem: its fields are present in the result, empty where it lacks them.
SXCommon::MultiroomVersions ReadMultiroomVersions(const std::string& etcDir);

/// "Capabilities.json", whose root key is "Capabilities". False, and nothing touched, where it cannot be read.
bool ReadCapabilities(const std::string& etcDir, SXCommon::Capabilities& capabilities);

} // namespace SonarixService
