#pragma once

#include <string>

/// Resolves an argument to a text: `@FILE` is the content of a file, `-` is standard input, anything else is the text
/// itself. Returns false, with the reason in `error`, if it cannot be read. Blocks.
[[nodiscard]] bool ReadTextArgument(const std::string& word, std::string& text, std::string& error);
