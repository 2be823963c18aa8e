#include "SystemUtils.h"

#include "ForkedRun.h"
#include "LogCapture.h"
#include "TempDirectory.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

using testing::HasSubstr;

class SystemUtilsTest : public testing::Test
{
protected:
    SystemUtilsTest()
    {
        ::setenv("SONARIX_RUN_DIR", (m_directory + "/a/run").c_str(), 1);
    }
    ~SystemUtilsTest() override
    {
        ::unsetenv("SONARIX_RUN_DIR");
    }

    TempDirectory m_temporary;
    const std::string& m_directory = m_temporary.Path();
};

int TakeTheLock()
{
    SystemUtils::ThereCanBeOnlyOne();
    return 0;
}

TEST_F(SystemUtilsTest, ARunDirectoryThatCannotBeMadeEndsTheProcess)
{
    std::ofstream(m_directory + "/a") << "a file in the way";
    for (const std::string directory : {"/a/run", "/a"})
    {
        ::setenv("SONARIX_RUN_DIR", (m_directory + directory).c_str(), 1);
        const ForkedResult result = RunForked(&TakeTheLock);
        EXPECT_EQ(result.m_exitStatus, 1);
        EXPECT_THAT(result.m_output, HasSubstr(m_directory + directory));
        EXPECT_EQ(std::count(result.m_output.begin(), result.m_output.end(), '\n'), 1) << result.m_output;
    }
    ::setenv("SONARIX_RUN_DIR", (m_directory + "/with/slash/").c_str(), 1);
    EXPECT_TRUE(RunForked(&TakeTheLock).Succeeded());
    ::setenv("SONARIX_RUN_DIR", "", 1);
    EXPECT_EQ(SystemUtils::RunDir(), "/run/sonarix");
}

TEST_F(SystemUtilsTest, ReadFile)
{
    const LogCapture log;
    const std::string path = m_directory + "/file";
    const std::string text = std::string(10'000, 'x') + std::string("\0end", 4);
    std::ofstream(path) << text;
    EXPECT_EQ(SystemUtils::ReadFile(path), text);
    std::ofstream(path, std::ios::trunc).flush();
    EXPECT_EQ(SystemUtils::ReadFile(path), "");
    EXPECT_THAT(SystemUtils::ReadFile("/proc/self/comm").value_or(""), HasSubstr("runtime-test"));
    EXPECT_FALSE(SystemUtils::ReadFile(m_directory + "/missing"));
    EXPECT_FALSE(SystemUtils::ReadFile(path + "/below-a-file"));
    EXPECT_EQ(log.Lines().size(), 0u) << "a missing file is no failure: " << log.Text();

    EXPECT_FALSE(SystemUtils::ReadFile(m_directory));
    ASSERT_EQ(::mkfifo((m_directory + "/pipe").c_str(), 0600), 0);
    EXPECT_FALSE(SystemUtils::ReadFile(m_directory + "/pipe")) << "and does not wait for a writer";
    EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 2u) << log.Text();
    EXPECT_TRUE(log.Contains(m_directory + "/pipe"));
}

} // namespace
