#include "JsonBody.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace
{

/// Walks the text of a frame and finds the values of the two places. Of text that is no JSON it finds anything.
class BodyFinder
{
public:
    explicit BodyFinder(std::string_view text)
        : m_text(text)
    {
    }

    /// Whether there is exactly one.
    bool Find()
    {
        for (m_at = 0; m_at < m_text.size() && m_found < 2; ++m_at)
        {
            Step(m_text[m_at]);
        }
        return m_found == 1 && m_end > m_begin;
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
    void Step(char letter)
    {
        switch (letter)
        {
        case '"':
            HandleText();
            break;
        case '{':
        case '[':
            ++m_depth;
            break;
        case '}':
        case ']':
            EndValue();
            --m_depth;
            m_isInParams = m_isInParams && m_depth > 1;
            break;
        case ',':
            EndValue();
            break;
        case ':':
            HandleKey();
            break;
        default:
            break;
        }
    }

    void HandleText()
    {
        const std::size_t begin = ++m_at;
        while (m_at < m_text.size() && m_text[m_at] != '"')
        {
            m_at += m_text[m_at] == '\\' ? 2U : 1U;
        }
        m_lastText = m_at < m_text.size() ? m_text.substr(begin, m_at - begin) : std::string_view();
    }

    void HandleKey()
    {
        if (m_depth == 1)
        {
            m_isInParams = m_lastText == "params";
        }
        if ((m_depth == 1 && m_lastText == "result") || (m_depth == 2 && m_isInParams && m_lastText == "body"))
        {
            ++m_found;
            m_begin = m_at + 1;
            m_end = 0;
            m_bodyDepth = m_depth;
        }
    }

    void EndValue()
    {
        if (m_found == 1 && m_end == 0 && m_depth == m_bodyDepth)
        {
            m_end = m_at;
        }
    }

    const std::string_view m_text;
    std::size_t m_at = 0;
    int m_depth = 0;
    int m_bodyDepth = 0;
    bool m_isInParams = false;
    std::string_view m_lastText;
    int m_found = 0;
    std::size_t m_begin = 0;
    std::size_t m_end = 0; ///< 0: not reached yet
};

} // namespace

JsonText::Frame JsonText::TakeBody(const std::string& text)
{
    BodyFinder finder(text);
    if (!finder.Find())
    {
        return {text, {}};
    }
    std::string_view body = std::string_view(text).substr(finder.Begin(), finder.End() - finder.Begin());
    body.remove_prefix(std::min(body.find_first_not_of(' '), body.size()));
    body = body.substr(0, body.find_last_not_of(' ') + 1); // of nothing but blanks: nothing
    if (body.empty() || body.find_first_of("\r\n\t") != std::string_view::npos)
    {
        return {text, {}};
    }
    return {text.substr(0, finder.Begin()) + "null" + text.substr(finder.End()), std::string(body)};
}
