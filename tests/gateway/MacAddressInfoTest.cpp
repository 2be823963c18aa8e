#include "gateway/MacAddressInfo.h"

#include "tests/support/TempDirectory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

using namespace SonarixService;

namespace
{

/// A directory with the files of a fake machine.
class MacAddressInfoTest : public testing::Test
{
protected:
    void Write(const std::string& path, const std::string& content) const
    {
        const std::filesystem::path file = m_root.Path() + path;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << content;
    }

    const TempDirectory m_root;
    const MacAddressReader m_reader{m_root.Path()};
};

} // namespace

TEST_F(MacAddressInfoTest, InterfaceFileGivesOnlyItsDigitsInUpperCase)
{
    const char* const rows[][2] = {{"aa:bb:cc:00:11:22\n", "AABBCC001122"},
                                   {"AA-bb-CC-00-11-2f and more", "AABBCC00112F"}, // separators are ignored
                                   {"aa:b", "AAB"},
                                   {"", ""}};
    for (const auto& [content, digits] : rows)
    {
        Write("/sys/class/net/eth0/address", content);
        EXPECT_EQ(m_reader.GetMAC("eth0"), digits);
    }
}

TEST_F(MacAddressInfoTest, PrimaryMacIsWiredThenDeviceTreeThenWireless)
{
    EXPECT_EQ(m_reader.GetPrimaryMAC(), "");

    Write("/sys/class/net/wlan0/address", "02:00:00:00:00:01\n");
    EXPECT_EQ(m_reader.GetWiredMAC(), "");
    EXPECT_EQ(m_reader.GetPrimaryMAC(), "020000000001");

    Write("/proc/device-tree/ocp/macaddr/mac-address", std::string("\x00\x1A\x2B\x3C\x4D\xFE", 6));
    EXPECT_EQ(m_reader.GetPrimaryMAC(), "001A2B3C4DFE");

    Write("/sys/class/net/eth0/address", "02:00:00:00:00:02\n");
    EXPECT_EQ(m_reader.GetPrimaryMAC(), "020000000002");
}
