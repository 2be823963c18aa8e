#pragma once

#include "schemas/SXCommon.pb.h"

#include <string>

namespace SonarixService
{

// Functions that read the files on versions and capabilities of the product's software, at start. A missing file is not
// an error. A file that does not parse is logged at level 1, and its fields stay empty.

/// The value of SONARIX_ETC_DIR if that is set, even to an empty string, else "/opt/Kova/etc/". File names are appended
/// without a separator.
std::string ResolveEtcDir();

/// Takes from each versions file only the fields of its own subsystem. A field that the file lacks becomes present and
/// empty.
SXCommon::MultiroomVersions ReadMultiroomVersions(const std::string& etcDir);

/// Reads "Capabilities.json", whose root key is "Capabilities". False, with `capabilities` unchanged, if the file
/// cannot be read.
bool ReadCapabilities(const std::string& etcDir, SXCommon::Capabilities& capabilities);

} // namespace SonarixService
