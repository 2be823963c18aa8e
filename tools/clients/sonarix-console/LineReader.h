#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Splits the bytes of the debug console into lines. A value class.
class LineReader
{
public:
    enum Result
    {
        MORE,
        LINE,
        FAULT, ///< never; required by MessageConnection
    };

    void Append(std::string_view bytes)
    {
        m_bytes += bytes;
    }
    /// Stores the next line without its end.
    Result Next(std::string& line)
    {
        const std::size_t end = m_bytes.find('\n', m_searched);
        if (end == std::string::npos)
        {
            m_searched = m_bytes.size();
            return MORE;
        }
        line = m_bytes.substr(0, end);
        m_bytes.erase(0, end + 1);
        m_searched = 0;
        return LINE;
    }

private:
    std::string m_bytes;
    std::size_t m_searched = 0; ///< these first bytes of m_bytes contain no '\n'
};
