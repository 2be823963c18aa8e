#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

/// A new directory; the destructor removes it with its content.
class TempDirectory final
{
public:
    TempDirectory()
    {
        if (::mkdtemp(m_path.data()) == nullptr)
        {
            throw std::runtime_error("no temporary directory");
        }
    }
    ~TempDirectory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;

    const std::string& Path() const
    {
        return m_path;
    }

private:
    std::string m_path = (std::filesystem::temp_directory_path() / "sonarix-test-XXXXXX").string();
};
