#include "base/JsonText.h"

#include "base/Utf8.h"

#include <array>
#include <string_view>

// A block of 16 bytes may end behind the text that it begins in, though never on another page: the sanitizers take that
// for a fault.
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

/// Hears of each token, counts what is bounded and notes where the value of one of the two places begins and ends.
/// Answers false to end the reading at a bound.
class FrameScan : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, FrameScan>
{
public:
    explicit FrameScan(const rapidjson::StringStream& stream)
        : m_stream(stream)
    {
    }

    /// A plain value.
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

    /// Whether there is exactly one value in the two places, and it is an object or a list.
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
            m_begin = m_stream.Tell() - 1; // its bracket is read
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
    std::array<std::size_t, JsonText::kMaxNesting + 1> m_members{}; ///< by depth; the first is around the text
    std::size_t m_depth = 0;
    std::size_t m_bodyDepth = 0; ///< of the object that holds the body while that is open, else 0
    bool m_isInParams = false;
    bool m_isNext = false; ///< the next value stands in one of the two places
    int m_found = 0;
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
};

Verdict Scan(const std::string& text, rapidjson::StringStream& stream, FrameScan& scan)
{
    rapidjson::Reader reader;
    // Numbers stay texts: nobody asks for their values here.
    const rapidjson::ParseResult result = reader.Parse<rapidjson::kParseNumbersAsStringsFlag>(stream, scan);
    if (result.Code() == rapidjson::kParseErrorTermination)
    {
        return Verdict::TOO_COMPLEX;
    }
    // A NUL ends the reading like the end of the text.
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
