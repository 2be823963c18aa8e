#include "tests/support/ForkedRun.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDirectory.h"
#include <MfgData.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

namespace
{

/// Returns 10 times the number of level-1 lines, plus 1 if the guid is "G". Each call has its own process, since
/// MfgData reads the file once per process.
int Read(const std::string& text, const std::string& suffix = "")
{
    const TempDirectory directory;
    const std::string path = directory.Path() + "/data";
    std::ofstream(path) << text;
    const auto read = [&]
    {
        setenv("SONARIX_MFG_DATA", (path + suffix).c_str(), 1);
        const LogCapture log;
        const bool isG = MfgData::Get("guid") == "G";
        setenv("SONARIX_MFG_DATA", "/none", 1);
        const bool isStillG = isG && MfgData::Get("guid") == "G" && !MfgData::Get("absent");
        return static_cast<int>(log.Count(DPrint::LEVEL_ERROR)) * 10 + (isStillG ? 1 : 0);
    };
    return RunForked(read).m_exitStatus;
}

} // namespace

TEST(MfgDataTest, InvalidFileIsIgnoredWithOneLine)
{
    EXPECT_EQ(Read(R"({"guid":"G","serial":""})"), 1);
    EXPECT_EQ(Read("{}"), 0);
    EXPECT_EQ(Read("", "/missing"), 0) << "a missing file is not an error";
    for (const char* text : {"", "{", "[]", R"([{"guid":"G"}])", "null", "\"guid\"", "7", "\xff\xfe",
                             R"({"guid":"G","n":1})", R"({"guid":{"a":"b"}})"})
    {
        EXPECT_EQ(Read(text), 10) << text;
    }
}
