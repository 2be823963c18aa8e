#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// Kinds of simulated devices. A misbehaving device claims to be a product of the family, so a row in the daemon's
/// table shows that its description was accepted. It has no gateway unless stated otherwise.
enum class Kind : std::uint8_t
{
    PRODUCT,           ///< of the family, with a gateway
    RENDERER,          ///< of another manufacturer
    HASTY,             ///< a renderer that answers a search immediately and ignores MX
    NO_LOCATION,       ///< no LOCATION header in any message
    EMPTY_LOCATION,    ///< "LOCATION:"
    LONG_LOCATION,     ///< valid, more than 2,000 characters
    OTHER_SCHEME,      ///< ftp://
    LOOPBACK_LOCATION, ///< http://127.0.0.1
    CLOSED_PORT,       ///< no server listens there
    SILENT_SERVER,     ///< accepts the connection and sends nothing
    SLOW_SERVER,       ///< sends one byte per second
    STATUS_404,
    STATUS_500,
    STATUS_503,   ///< Retry-After: 43200, X-Retry-Count: -1
    REDIRECT,     ///< to a valid description on the same server
    HUGE_BODY,    ///< 100 MiB
    ENDLESS_BODY, ///< continues until the client closes the connection
    CUT_XML,      ///< ends in the middle of an element
    DEEP_XML,     ///< 100,000 levels
    ENTITY_XML,   ///< nested entities that expand to a billion strings
    LATIN1_XML,   ///< ISO-8859-1
    UTF16_XML,    ///< UTF-16
    NUL_BYTE,     ///< in the middle of a text node
    EMPTY_BODY,   ///< status 200 and no body
    FLAPPING,     ///< with a gateway; alive and byebye 100 times a second
};

const char* Name(Kind kind);
std::optional<Kind> KindOf(const std::string& name);
/// Returns all kinds, in the order of the enumeration.
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
