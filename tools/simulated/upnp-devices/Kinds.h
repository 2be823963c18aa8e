#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// What a simulated device is, and where it misbehaves, how. Each misbehaving one calls itself a product of the
/// family, so that a row in somebody's table shows that it was believed; it has no gateway, unless it says otherwise.
enum class Kind : std::uint8_t
{
    PRODUCT,           ///< of the family, with a gateway
    RENDERER,          ///< of another maker
    HASTY,             ///< a renderer that answers a search at once, whatever its MX
    NO_LOCATION,       ///< none in any message
    EMPTY_LOCATION,    ///< "LOCATION:"
    LONG_LOCATION,     ///< of over 2,000 characters, good otherwise
    OTHER_SCHEME,      ///< ftp://
    LOOPBACK_LOCATION, ///< http://127.0.0.1
    CLOSED_PORT,       ///< nobody listens there
    SILENT_SERVER,     ///< accepts, and says nothing
    SLOW_SERVER,       ///< says a byte a second
    STATUS_404,
    STATUS_500,
    STATUS_503,   ///< Retry-After: 43200, X-Retry-Count: -1
    REDIRECT,     ///< to a good description of its own
    HUGE_BODY,    ///< 100 MiB
    ENDLESS_BODY, ///< goes on until the reader has enough
    CUT_XML,      ///< ends in the middle of an element
    DEEP_XML,     ///< 100,000 levels
    ENTITY_XML,   ///< entities of entities, a billion in all
    LATIN1_XML,   ///< ISO-8859-1
    UTF16_XML,    ///< UTF-16
    NUL_BYTE,     ///< in the middle of a text
    EMPTY_BODY,   ///< 200, and nothing
    FLAPPING,     ///< with a gateway; alive and byebye 100 times a second
};

const char* Name(Kind kind);
std::optional<Kind> KindOf(const std::string& name);
/// In the order above.
std::vector<Kind> AllKinds();

inline bool IsMisbehaving(Kind kind)
{
    return kind > Kind::HASTY;
}
inline bool HasGateway(Kind kind)
{
    return kind == Kind::PRODUCT || kind == Kind::FLAPPING;
}
inline bool IsOfFamily(Kind kind)
{
    return kind == Kind::PRODUCT || IsMisbehaving(kind);
}
