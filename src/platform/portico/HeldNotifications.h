#pragma once

#include <cstddef>
#include <map>
#include <string>

namespace Portico
{

/// The last notification of each path that could not be sent yet. On the I/O task. Bounded: one path more, or one
/// byte more, drops the notification.
class HeldNotifications final
{
public:
    static constexpr std::size_t kMaxPaths = 64;
    static constexpr std::size_t kMaxBytes = 8U << 20U;

    /// Replaces what was held for the path. False: dropped.
    bool Hold(const std::string& path, std::string frame)
    {
        Take(path);
        if (m_frames.size() >= kMaxPaths || m_bytes + frame.size() > kMaxBytes)
        {
            return false;
        }
        m_bytes += frame.size();
        m_frames[path] = std::move(frame);
        return true;
    }

    /// Empty where nothing is held.
    std::string Take(const std::string& path)
    {
        auto node = m_frames.extract(path);
        if (node.empty())
        {
            return {};
        }
        m_bytes -= node.mapped().size();
        return std::move(node.mapped());
    }

    const std::map<std::string, std::string>& All() const
    {
        return m_frames;
    }

private:
    std::map<std::string, std::string> m_frames;
    std::size_t m_bytes = 0;
};

} // namespace Portico
