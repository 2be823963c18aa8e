#pragma once

#include <string>

/// Text from the LAN without what a terminal would obey: a line's end is a "?" too. Stateless.
std::string Printable(const std::string& text);
