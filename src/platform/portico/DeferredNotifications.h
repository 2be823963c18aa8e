#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace Portico
{

/// The last notification of each path that could not be sent yet. Bounded: a notification over a limit is dropped.
/// Task: the I/O task.
class DeferredNotifications final
{
public:
    static constexpr std::size_t kMaxPaths = 64;
    static constexpr std::size_t kMaxBytes = 8U << 20U;

    /// Replaces the stored notification of the path. Returns false if `frame` was dropped.
    bool Put(const std::string& path, std::string frame)
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

    /// Removes and returns the notification of the path; empty if there is none.
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

    /// Returns the notification of the path, or null.
    const std::string* Find(const std::string& path) const
    {
        const auto found = m_frames.find(path);
        return found != m_frames.end() ? &found->second : nullptr;
    }

    std::vector<std::string> Paths() const
    {
        std::vector<std::string> paths;
        for (const auto& [path, frame] : m_frames)
        {
            paths.push_back(path);
        }
        return paths;
    }

private:
    std::map<std::string, std::string> m_frames;
    std::size_t m_bytes = 0;
};

} // namespace Portico
