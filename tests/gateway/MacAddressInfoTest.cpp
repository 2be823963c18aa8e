#include "MacAddressInfo.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

using namespace SonarixService;

namespace
{

const char* const kDeviceTree = "/proc/device-tree/ocp/macaddr/mac-address";

/// A machine's files in a directory of its own.
class MacAddressInfoTest : public testing::Test
{
protected:
    MacAddressInfoTest()
    {
        std::string name = (std::filesystem::temp_directory_path() / "mac-XXXXXX").string();
        m_root = mkdtemp(name.data());
    }
    ~MacAddressInfoTest() override
    {
        std::filesystem::remove_all(m_root);
    }

    void Write(const std::string& path, const std::string& content) const
    {
        const std::filesystem::path file = m_root + path;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << content;
    }
    void WriteInterface(const std::string& name, const std::string& content) const
    {
        Write("/sys/class/net/" + name + "/address", content);
    }

    std::string m_root;
};

} // namespace

TEST_F(MacAddressInfoTest, InterfaceFileGivesTwelveUpperCaseDigits)
{
    const MacAddressReader reader(m_root);
    WriteInterface("eth0", "aa:bb:cc:00:11:22\n");
    WriteInterface("eth1", "AA-bb-CC-00-11-2f and more"); // the separators are not looked at
    EXPECT_EQ(reader.GetMAC("eth0"), "AABBCC001122");
    EXPECT_EQ(reader.GetMAC("eth1"), "AABBCC00112F");
    EXPECT_EQ(reader.GetMAC("eth2"), "");
}

TEST_F(MacAddressInfoTest, ShortOrEmptyInterfaceFileGivesNoMadeUpDigits)
{
    const MacAddressReader reader(m_root);
    WriteInterface("eth0", "");
    WriteInterface("eth1", "aa:b");
    EXPECT_EQ(reader.GetMAC("eth0"), "");
    EXPECT_EQ(reader.GetMAC("eth1"), "AAB");
}

TEST_F(MacAddressInfoTest, WiredBeforeDeviceTreeBeforeWireless)
{
    const MacAddressReader reader(m_root);
    EXPECT_EQ(reader.GetPrimaryMAC(), "");
    EXPECT_EQ(reader.GetMacFromDeviceTree(), "");

    WriteInterface("wlan0", "02:00:00:00:00:01\n");
    EXPECT_EQ(reader.GetWiredMAC(), "");
    EXPECT_EQ(reader.GetPrimaryMAC(), "020000000001");

    Write(kDeviceTree, std::string("\x00\x1A\x2B\x3C\x4D\xFE", 6));
    EXPECT_EQ(reader.GetWiredMAC(), "001A2B3C4DFE");
    EXPECT_EQ(reader.GetPrimaryMAC(), "001A2B3C4DFE");

    WriteInterface("eth0", "02:00:00:00:00:02\n");
    EXPECT_EQ(reader.GetWiredMAC(), "020000000002");
    EXPECT_EQ(reader.GetPrimaryMAC(), "020000000002");
}
