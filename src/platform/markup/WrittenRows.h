#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

/// The elements of the long list that was written last, as they were then: the product table is published at each
/// change of one row, and the other hundreds are as they were a moment ago. What a row was is told by its binary form,
/// which costs a fortieth of its text; so nobody has to say that a row has changed.
///
/// For one thread. Holds one list; never decides what is in it.
class WrittenRows
{
public:
    /// Shorter ones cost nothing worth keeping them.
    static constexpr int kLongList = 16;

    /// A list begins, of elements of a kind: those of another kind are forgotten.
    void Begin(const void* type, bool enumsAsNumbers)
    {
        const std::pair kind(type, enumsAsNumbers);
        if (m_kind != kind || m_isWriting) // whoever wrote the last one left it halfway
        {
            m_last.clear();
        }
        m_kind = kind;
        m_isWriting = true;
        m_written.clear();
        m_at = 0;
        m_misses = 0;
    }

    /// The text of an element that is as it was in the last list, about here; null where it is not.
    const std::string* Find(const std::string& binary)
    {
        constexpr std::size_t kRemoved = 8; ///< so many in a row may have left the list
        for (std::size_t at = m_at; at < m_last.size() && at <= m_at + m_misses + kRemoved; ++at)
        {
            if (m_last[at].binary == binary)
            {
                m_written.push_back(std::move(m_last[at]));
                m_at = at + 1;
                m_misses = 0;
                return &m_written.back().json;
            }
        }
        ++m_misses; // it is new, or stands in the place of what it was
        return nullptr;
    }

    void Add(const std::string& binary, std::string json)
    {
        m_written.push_back({binary, std::move(json)});
    }

    void End()
    {
        m_last.swap(m_written);
        m_written.clear();
        m_isWriting = false;
        m_bytes = 0;
        for (const Row& row : m_last)
        {
            m_bytes += row.json.size() + 1;
        }
    }

    /// Of the last list's text, about.
    std::size_t Bytes() const
    {
        return m_bytes;
    }

private:
    struct Row
    {
        std::string binary;
        std::string json;
    };

    std::pair<const void*, bool> m_kind;
    bool m_isWriting = false;
    std::size_t m_bytes = 0;
    std::vector<Row> m_last;
    std::vector<Row> m_written;
    std::size_t m_at = 0;     ///< in the last list
    std::size_t m_misses = 0; ///< since the last that was found
};
