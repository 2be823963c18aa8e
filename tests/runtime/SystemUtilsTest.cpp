#include "runtime/SystemUtils.h"

#include "tests/support/ForkedRun.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDirectory.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <string>
#include <sys/stat.h>

namespace
{

using testing::HasSubstr;

TEST(SystemUtilsTest, UncreatableRunDirectoryEndsTheProcess)
{
    const auto takeTheLock = []
    {
        SystemUtils::ThereCanBeOnlyOne();
        return 0;
    };
    const TempDirectory temporary;
    std::ofstream(temporary.Path() + "/a") << "a file in the way";
    for (const std::string directory : {"/a/run", "/a"})
    {
        ::setenv("SONARIX_RUN_DIR", (temporary.Path() + directory).c_str(), 1);
        const ForkedResult result = RunForked(takeTheLock);
        EXPECT_EQ(result.m_exitStatus, 1);
        EXPECT_THAT(result.m_output, HasSubstr(temporary.Path() + directory));
        EXPECT_EQ(std::count(result.m_output.begin(), result.m_output.end(), '\n'), 1) << result.m_output;
    }
    ::setenv("SONARIX_RUN_DIR", (temporary.Path() + "/with/slash/").c_str(), 1);
    EXPECT_TRUE(RunForked(takeTheLock).Succeeded());
    ::setenv("SONARIX_RUN_DIR", "", 1);
    EXPECT_EQ(SystemUtils::RunDir(), "/run/sonarix");
    ::unsetenv("SONARIX_RUN_DIR");
}

TEST(SystemUtilsTest, ReadFileLogsAllFailuresButAMissingFile)
{
    const TempDirectory temporary;
    const LogCapture log;
    const std::string path = temporary.Path() + "/file";
    const std::string text = std::string(10'000, 'x') + std::string("\0end", 4);
    std::ofstream(path) << text;
    EXPECT_EQ(SystemUtils::ReadFile(path), text);
    std::ofstream(path, std::ios::trunc).flush();
    EXPECT_EQ(SystemUtils::ReadFile(path), "");
    EXPECT_THAT(SystemUtils::ReadFile("/proc/self/comm").value_or(""), HasSubstr("runtime-test"));
    EXPECT_FALSE(SystemUtils::ReadFile(temporary.Path() + "/missing"));
    EXPECT_FALSE(SystemUtils::ReadFile(path + "/below-a-file"));
    EXPECT_EQ(log.Lines().size(), 0u) << "a missing file is not logged: " << log.Text();

    EXPECT_FALSE(SystemUtils::ReadFile(temporary.Path()));
    ASSERT_EQ(::mkfifo((temporary.Path() + "/pipe").c_str(), 0600), 0);
    EXPECT_FALSE(SystemUtils::ReadFile(temporary.Path() + "/pipe")) << "must not wait for a writer";
    EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 2u) << log.Text();
    EXPECT_TRUE(log.Contains(temporary.Path() + "/pipe"));
}

} // namespace
