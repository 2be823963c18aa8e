#pragma once

#include <cstddef>
#include <string>

/// Looks over JSON text without making a tree of it: what is only passed on may be megabytes, and is looked over once.
/// Linear, in constant memory, and right for any bytes; from any thread.
namespace JsonText
{

/// As deep as protobuf's own reader goes; nothing of ours nests ten levels.
inline constexpr std::size_t kMaxNesting = 100;

/// An object that keeps its members' order looks through all of them for each that is added: a frame of 4 MiB with
/// nothing but members took a quarter of an hour. No record of ours has fifty.
inline constexpr std::size_t kMaxMembers = 256;

enum class Verdict
{
    JSON,
    NO_JSON,     ///< or no UTF-8
    TOO_COMPLEX, ///< lists and objects nest deeper than kMaxNesting, or one object has more than kMaxMembers
};

Verdict Check(const std::string& text);

/// A JSON-RPC frame in two texts: what tells where it goes, small, and what it carries, which nobody on the way has to
/// look into.
struct Frame
{
    Verdict verdict = Verdict::NO_JSON; ///< of the whole; the texts are empty where it is not JSON
    std::string envelope;
    std::string
        body; ///< an object or a list, unchanged, in whose place the envelope has `null`; empty: taken from none
};

/// Takes out "result", or "body" of "params". Leaves the frame whole where it holds neither or several of them, and
/// where the value is a plain one or spans lines (a notification stays one for whoever prints it).
Frame ReadFrame(const std::string& text);

} // namespace JsonText
