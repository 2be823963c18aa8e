#pragma once

#include "tools/clients/sonarix-ipc/Devices.h"

#include <string>
#include <vector>

/// A table with a heading, of the columns that any of the devices fills; lines with their ends.
std::string DeviceTable(const std::vector<Device>& devices);

/// "+ Kitchen  10.0.0.7  GUID", "- Kitchen  GUID", "~ Kitchen  softwareversion 1.0 -> 1.1".
std::string ChangeText(const DeviceChange& change);

/// {"change": "appeared", "device": {…}}, "changed" with what was "before", or "gone"; on one line.
std::string ChangeJson(const DeviceChange& change);
