#pragma once

#include <string>

/// The text that a word of a command line stands for: itself, or what `@FILE` or `-` (standard input) hold. False,
/// with the reason in `error`, where that cannot be read. Blocks.
[[nodiscard]] bool ReadTextArgument(const std::string& word, std::string& text, std::string& error);
