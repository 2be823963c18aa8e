#pragma once

#include <string>

/// "accessoryMode" of a product configuration. Throws std::runtime_error, with the reason, where `text` is no JSON
/// object or the key is no boolean.
bool ParseAccessoryMode(const std::string& text);
