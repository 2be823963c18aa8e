#pragma once

#include <string>

/// Makes a text from the LAN safe for a terminal: control characters, also line ends, become "?". Invalid UTF-8
/// becomes U+FFFD. Stateless.
std::string Printable(const std::string& text);
