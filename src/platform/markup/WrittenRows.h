#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

/// Cache of each element's JSON from the last long list, keyed by its wire bytes. The product table is sent at each
/// change of one row; hundreds of others are unchanged. Serializing costs 1/40 of printing JSON, so unchanged rows
/// are found by comparison and no dirty flag is needed.
///
/// For one thread. Holds one list.
class WrittenRows
{
public:
    /// Lists with fewer elements are not cached.
    static constexpr int kLongList = 16;

    /// Starts a list. Drops the cache if `type` or `enumsAsNumbers` differ from the last list.
    void Begin(const void* type, bool enumsAsNumbers)
    {
        const std::pair kind(type, enumsAsNumbers);
        if (m_kind != kind || m_isWriting) // the last list was not finished
        {
            m_last.clear();
        }
        m_kind = kind;
        m_isWriting = true;
        m_written.clear();
        m_at = 0;
        m_misses = 0;
    }

    /// The cached text of an element, or null. Searches a few rows from the current position only.
    const std::string* Find(const std::string& binary)
    {
        constexpr std::size_t kRemoved = 8; ///< consecutive rows that may have been removed
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
        ++m_misses; // the row is new or changed
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

    /// Approximate size of the last list's text.
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
    std::size_t m_misses = 0; ///< since the last row that was found
};
