// Manufacturing data and product configuration: what their files may hold, and what comes of files that do not.
#include "tests/support/ForkedRun.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDirectory.h"
#include <MfgData.h>
#include <ProdConfigData.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

namespace
{

class ConfigDataTest : public testing::Test
{
protected:
    /// Each reading has a process of its own, since one of the files is read once a process. Gives 10 times the lines
    /// of level 1, plus 1 where the guid is "G", plus 2 in accessory mode.
    int Read(const std::string& text, const std::string& below = "") const
    {
        std::ofstream(m_path) << text;
        const auto read = [path = m_path + below]
        {
            setenv("SONARIX_MFG_DATA", path.c_str(), 1);
            setenv("SONARIX_PRODUCT_CONFIG", path.c_str(), 1);
            const LogCapture log;
            const bool isG = MfgData::Get("guid") == "G";
            const bool isAccessory = ProdConfigData::IsDeviceInAccessoryMode();
            setenv("SONARIX_MFG_DATA", "/none", 1);
            const bool isRead = isG && MfgData::Get("guid") == "G" && !MfgData::Get("absent");
            return static_cast<int>(log.Count(DPrint::LEVEL_ERROR)) * 10 + (isRead ? 1 : 0) + (isAccessory ? 2 : 0);
        };
        return RunForked(read).m_exitStatus;
    }
    const TempDirectory m_directory;
    const std::string m_path = m_directory.Path() + "/data";
};

} // namespace

TEST_F(ConfigDataTest, WhatIsNotAsItShouldBeIsToldInOneLineAndLeftOut)
{
    EXPECT_EQ(Read(R"({"guid":"G","serial":""})"), 1);
    EXPECT_EQ(Read("{}"), 0);
    for (const char* text :
         {"", "{", "[]", R"([{"guid":"G","accessoryMode":true}])", "null", "\"guid\"", "7", "\xff\xfe"})
    {
        EXPECT_EQ(Read(text), 20) << text;
    }
    // A flat object of strings here, a boolean there.
    EXPECT_EQ(Read(R"({"guid":"G","n":1})"), 10);
    EXPECT_EQ(Read(R"({"guid":{"a":"b"}})"), 10);
    EXPECT_EQ(Read(R"({"accessoryMode":true,"other":[1]})"), 12);
    EXPECT_EQ(Read(R"({"guid":"G","accessoryMode":"true"})"), 11);

    EXPECT_EQ(Read("", "/missing"), 0) << "no file, no line";
}
