#pragma once

#include <string>

namespace JsonText
{

/// A JSON-RPC frame in two texts: what tells where it goes, small, and what it carries, which may be megabytes that
/// nobody on the way has to look into.
///
/// Design: whoever passes a body on needs no tree of it. The frame is JSON exactly if both texts are: `body` is one
/// value of it, in whose place the envelope has `null`. Checking them is the caller's, with the parser of his choice.
struct Frame
{
    std::string envelope;
    std::string body; ///< empty: the envelope is the whole frame
};

/// Takes out "result", or "body" of "params", unchanged. Leaves the frame whole where it holds neither or several of
/// them, where the value spans lines (a notification stays one for whoever prints it), and where the text is no JSON
/// object. Linear, and right for any bytes.
Frame TakeBody(const std::string& text);

} // namespace JsonText
