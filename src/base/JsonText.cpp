#include "base/JsonText.h"

#include "base/Utf8.h"

#include <array>
#include <string_view>

// RapidJSON's SIMD code reads aligned blocks of 16 bytes, which may extend past the text but not into another page. The
// sanitizers report that, so their builds read byte by byte.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SONARIX_BYTE_BY_BYTE
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define SONARIX_BYTE_BY_BYTE
#endif
#endif

#if defined(SONARIX_BYTE_BY_BYTE)
#elif defined(__SSE2__)
#define RAPIDJSON_SSE2 // plain text in strings, 16 bytes at a time
#elif defined(__ARM_NEON)
#define RAPIDJSON_NEON
#endif
#include <rapidjson/reader.h>

namespace
{

using JsonText::Frame;
using JsonText::Verdict;

/// SAX handler that enforces the limits and records where the body begins and ends. Returns false to stop the parser at
/// a limit.
class FrameScan : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, FrameScan>
{
public:
    explicit FrameScan(const rapidjson::StringStream& stream)
        : m_stream(stream)
    {
    }

    /// The parser has read a value that is neither an object nor an array.
    bool Default()
    {
        m_isNext = false;
        return true;
    }

    bool Key(const char* text, rapidjson::SizeType length, bool /*isCopied*/)
    {
        const std::string_view key(text, length);
        if (m_depth == 1)
        {
            m_isInParams = key == "params";
        }
        m_isNext = (m_depth == 1 && key == "result") || (m_depth == 2 && m_isInParams && key == "body");
        m_found += m_isNext ? 1 : 0;
        return ++m_members[m_depth] <= JsonText::kMaxMembers;
    }

    bool StartObject()
    {
        return Open();
    }

    bool StartArray()
    {
        return Open();
    }

    bool EndObject(rapidjson::SizeType /*members*/)
    {
        return Close();
    }

    bool EndArray(rapidjson::SizeType /*elements*/)
    {
        return Close();
    }

    /// True if exactly one member is a candidate for the body, and its value is an object or array.
    bool HasBody() const
    {
        return m_found == 1 && m_end > 0;
    }

    std::size_t Begin() const
    {
        return m_begin;
    }

    std::size_t End() const
    {
        return m_end;
    }

private:
    bool Open()
    {
        if (m_depth == JsonText::kMaxNesting)
        {
            return false;
        }
        if (m_isNext)
        {
            m_isNext = false;
            m_begin = m_stream.Tell() - 1; // the parser is past the bracket
            m_bodyDepth = m_depth;
        }
        m_members[++m_depth] = 0;
        return true;
    }

    bool Close()
    {
        --m_depth;
        if (m_bodyDepth > 0 && m_depth == m_bodyDepth)
        {
            m_end = m_stream.Tell();
            m_bodyDepth = 0;
        }
        return true;
    }

    const rapidjson::StringStream& m_stream;
    std::array<std::size_t, JsonText::kMaxNesting + 1> m_members{}; ///< by depth; index 0 is unused
    std::size_t m_depth = 0;
    std::size_t m_bodyDepth = 0; ///< depth of the object that holds the body while the body is open, else 0
    bool m_isInParams = false;
    bool m_isNext = false; ///< the next value is the body
    int m_found = 0;
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
};

Verdict Scan(const std::string& text, rapidjson::StringStream& stream, FrameScan& scan)
{
    rapidjson::Reader reader;
    // Numbers are not converted, because their values are not used.
    const rapidjson::ParseResult result = reader.Parse<rapidjson::kParseNumbersAsStringsFlag>(stream, scan);
    if (result.Code() == rapidjson::kParseErrorTermination)
    {
        return Verdict::TOO_COMPLEX;
    }
    // A NUL byte ends the parser like the end of the text, hence the comparison of sizes.
    return !result.IsError() && stream.Tell() == text.size() && Utf8::IsValid(text) ? Verdict::JSON : Verdict::NO_JSON;
}

bool SpansLines(std::string_view json)
{
    return json.find('\n') != std::string_view::npos || json.find('\r') != std::string_view::npos ||
           json.find('\t') != std::string_view::npos;
}

} // namespace

Verdict JsonText::Check(const std::string& text)
{
    rapidjson::StringStream stream(text.c_str());
    FrameScan scan(stream);
    return Scan(text, stream, scan);
}

Frame JsonText::ReadFrame(const std::string& text)
{
    rapidjson::StringStream stream(text.c_str());
    FrameScan scan(stream);
    Frame frame;
    frame.verdict = Scan(text, stream, scan);
    if (frame.verdict != Verdict::JSON)
    {
        return frame;
    }
    const auto body =
        scan.HasBody() ? std::string_view(text).substr(scan.Begin(), scan.End() - scan.Begin()) : std::string_view();
    if (body.empty() || SpansLines(body))
    {
        frame.envelope = text;
        return frame;
    }
    frame.envelope.append(text, 0, scan.Begin()).append("null").append(text, scan.End());
    frame.body = body;
    return frame;
}
