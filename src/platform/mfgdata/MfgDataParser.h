#pragma once

#include <map>
#include <string>

/// The strings of a flat JSON object. Throws std::runtime_error, with the reason, where `text` is anything else.
std::map<std::string, std::string> ParseMfgData(const std::string& text);
