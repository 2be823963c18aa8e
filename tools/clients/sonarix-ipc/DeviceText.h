#pragma once

#include "tools/clients/sonarix-ipc/KnownDevices.h"

#include <string>
#include <vector>

/// Formats a table with a heading. Columns that are empty for all devices are left out.
std::string DeviceTable(const std::vector<Device>& devices);

/// "+ Kitchen  10.0.0.7  GUID", "- Kitchen  GUID", "~ Kitchen  softwareversion 1.0 -> 1.1".
std::string ChangeText(const DeviceChange& change);

/// {"change": "appeared", "device": {…}} on one line; "changed" also has "before"; or "gone".
std::string ChangeJson(const DeviceChange& change);
