#include "tests/support/LogCapture.h"
#include "tests/support/TempDirectory.h"
#include <ProdConfigData.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

TEST(ProdConfigDataTest, InvalidFileIsIgnoredWithOneLine)
{
    const TempDirectory directory;
    const std::string path = directory.Path() + "/config";
    setenv("SONARIX_PRODUCT_CONFIG", path.c_str(), 1);
    const LogCapture log;
    EXPECT_FALSE(ProdConfigData::IsDeviceInAccessoryMode()) << "no file";
    const auto isAccessory = [&path](const char* text)
    {
        std::ofstream(path) << text;
        return ProdConfigData::IsDeviceInAccessoryMode();
    };
    EXPECT_TRUE(isAccessory(R"({"accessoryMode":true,"other":[1]})"));
    EXPECT_FALSE(isAccessory(R"({"accessoryMode":false})"));
    EXPECT_FALSE(isAccessory("{}"));
    EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 0U) << log.Text();
    std::size_t lines = 0;
    for (const char* text : {"", "{", "[]", R"([{"accessoryMode":true}])", "null", "\"accessoryMode\"", "7", "\xff\xfe",
                             R"({"accessoryMode":"true"})"})
    {
        EXPECT_FALSE(isAccessory(text)) << text;
        EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), ++lines) << text;
    }
    unsetenv("SONARIX_PRODUCT_CONFIG");
}
