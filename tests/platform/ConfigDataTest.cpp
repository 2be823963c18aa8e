// Manufacturing data and product configuration: what their files may hold, and what comes of files that do not.
#include "DPrint.h"
#include "MfgData.h"
#include "MfgDataParser.h"
#include "ProdConfigData.h"
#include "ProdConfigParser.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace
{

const char* const kNoObjects[] = {"", "{", "[]", "[{\"guid\":\"x\"}]", "null", "\"guid\"", "7", "\xff\xfe"};

/// Counts the lines of level 1 that `channel` writes while it lives.
class ErrorLines
{
public:
    ErrorLines()
    {
        DPrint::SetSink(
            [this](const std::string& channel, DPrint::Level level, const std::string&)
            {
                if (level == DPrint::LEVEL_ERROR)
                {
                    m_channels.push_back(channel);
                }
            });
    }
    ~ErrorLines()
    {
        DPrint::SetSink(nullptr);
    }
    ErrorLines(const ErrorLines&) = delete;
    ErrorLines& operator=(const ErrorLines&) = delete;

    const std::vector<std::string>& Channels() const
    {
        return m_channels;
    }

private:
    std::vector<std::string> m_channels;
};

class ConfigDataTest : public testing::Test
{
protected:
    void SetUp() override
    {
        std::filesystem::create_directories(m_folder);
    }
    void TearDown() override
    {
        std::filesystem::remove_all(m_folder);
        unsetenv("SONARIX_MFG_DATA");
        unsetenv("SONARIX_PRODUCT_CONFIG");
    }

    std::string Write(const std::string& text) const
    {
        const std::string path = m_folder + "/data.json";
        std::ofstream(path) << text;
        return path;
    }

    const std::string m_folder = testing::TempDir() + "config-data-" + std::to_string(getpid());
};

/// The file is read once a process, so each reading has a process of its own. Its status: 10 times the level-1
/// lines, plus 1 where the guid is "G" and stays it.
int ReadGuidInChild(const std::string& path)
{
    const pid_t child = fork();
    if (child == 0)
    {
        setenv("SONARIX_MFG_DATA", path.c_str(), 1);
        const ErrorLines lines;
        const bool isG = MfgData::Get("guid") == "G";
        std::filesystem::remove(path);
        const bool isSame = isG == (MfgData::Get("guid") == "G") && !MfgData::Get("absent");
        _exit(static_cast<int>(lines.Channels().size()) * 10 + (isG && isSame ? 1 : 0));
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

TEST_F(ConfigDataTest, ManufacturingDataIsAFlatObjectOfStrings)
{
    EXPECT_EQ(ParseMfgData(R"({"guid":"G","serial":""})"),
              (std::map<std::string, std::string>{{"guid", "G"}, {"serial", ""}}));
    for (const char* text : kNoObjects)
    {
        EXPECT_THROW(ParseMfgData(text), std::runtime_error) << text;
    }
    EXPECT_THROW(ParseMfgData(R"({"guid":"G","n":1})"), std::runtime_error);
    EXPECT_THROW(ParseMfgData(R"({"guid":{"a":"b"}})"), std::runtime_error);

    EXPECT_EQ(ReadGuidInChild(Write(R"({"guid":"G"})")), 1);
    EXPECT_EQ(ReadGuidInChild(Write(R"(["guid"])")), 10) << "one line";
    EXPECT_EQ(ReadGuidInChild(m_folder + "/missing"), 0) << "no line";
    EXPECT_EQ(ReadGuidInChild(m_folder + "/missing/guid"), 0);
}

TEST_F(ConfigDataTest, AccessoryModeIsABooleanAndFalseOtherwise)
{
    EXPECT_TRUE(ParseAccessoryMode(R"({"accessoryMode":true,"other":[1]})"));
    EXPECT_FALSE(ParseAccessoryMode(R"({"accessoryMode":false})"));
    EXPECT_FALSE(ParseAccessoryMode("{}"));
    for (const char* text : kNoObjects)
    {
        EXPECT_THROW(ParseAccessoryMode(text), std::runtime_error) << text;
    }
    EXPECT_THROW(ParseAccessoryMode(R"({"accessoryMode":"true"})"), std::runtime_error);

    const auto read = [](const std::string& path, std::size_t lines)
    {
        setenv("SONARIX_PRODUCT_CONFIG", path.c_str(), 1);
        const ErrorLines seen;
        const bool is = ProdConfigData::IsDeviceInAccessoryMode();
        EXPECT_EQ(seen.Channels().size(), lines) << path;
        return is;
    };
    EXPECT_TRUE(read(Write(R"({"accessoryMode":true})"), 0));
    EXPECT_FALSE(read(Write("[true]"), 1));
    EXPECT_FALSE(read(m_folder + "/missing", 0));
    EXPECT_FALSE(read(m_folder, 1)) << "a folder cannot be read";
}
