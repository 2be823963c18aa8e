#pragma once

#include <cstddef>

/// The name of the enumeration value `value`, whose names are listed in `names` from 0 on; "(?)" for any other value.
template <class Enum, std::size_t N>
constexpr const char* EnumName(const char* const (&names)[N], Enum value)
{
    const auto index = static_cast<std::size_t>(value);
    return index < N ? names[index] : "(?)";
}
