#include "aggregator/VersionFiles.h"
#include "tests/aggregator/AggregatorWorld.h"
#include <ProtoToMarkup.h>

#include <filesystem>
#include <fstream>
#include <string>

using namespace SonarixService;

namespace
{

/// Uses the configuration directory of this test process.
class VersionFilesTest : public AggregatorTest
{
protected:
    ~VersionFilesTest() override
    {
        for (const auto& file : std::filesystem::directory_iterator(m_dir))
        {
            std::filesystem::remove(file);
        }
    }
    void Write(const std::string& name, const std::string& text) const
    {
        std::ofstream(m_dir + name) << text;
    }

    const std::string m_dir = ResolveEtcDir();
};

} // namespace

TEST_F(VersionFilesTest, OnlyOwnFieldsOfEachFileAreTaken)
{
    const std::string all = R"({"Audio_Payload_Version":{"major_version":1},
        "AudioControl_Protocol_Version":{"major_version":2}, "ClockSync_Protocol_Version":{"major_version":3},
        "NowPlaying_Version":{"major_version":4}, "PlaybackRequest_Version":{"major_version":5},
        "ZoneControl_Version":{"major_version":6}, "Grouping_Version":{"major_version":7, "minor_version":8}})";
    Write("ClocksyncMultiroomVersions.json", all);
    EXPECT_EQ(ReadMultiroomVersions(m_dir).ShortDebugString(), "ClockSync_Protocol_Version { major_version: 3 }");
    EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 0U); // a missing file is not an error

    Write("APMultiroomVersions.json", all);
    Write("HubMultiroomVersions.json", all);
    Write("GroupingMultiroomVersions.json", all);
    SXCommon::MultiroomVersions expected;
    ProtoToMarkup::FromJson(all, &expected);
    expected.clear_zonecontrol_version();
    EXPECT_EQ(ReadMultiroomVersions(m_dir).ShortDebugString(), expected.ShortDebugString());
}

TEST_F(VersionFilesTest, UnparsableFileIsLoggedAndLeavesFieldsEmpty)
{
    Write("HubMultiroomVersions.json", R"({"NowPlaying_Version":{"major_version":4}})");
    for (const char* const broken : {"[]", "{", "", R"({"Audio_Payload_Version":"x"})", "\xff"})
    {
        Write("APMultiroomVersions.json", broken);
        log.Clear();
        EXPECT_EQ(ReadMultiroomVersions(m_dir).ShortDebugString(),
                  "Audio_Payload_Version { } AudioControl_Protocol_Version { } NowPlaying_Version { major_version: 4 } "
                  "PlaybackRequest_Version { }")
            << broken;
        EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 1U) << broken;
    }
    Write("Capabilities.json", "[1]");
    Start();
    EXPECT_TRUE(log.Contains(m_dir + "Capabilities.json"));
    EXPECT_TRUE(Own().has_capabilities());
}

TEST_F(VersionFilesTest, CapabilitiesComeFromRootKeyWithoutWifiBands)
{
    Write("Capabilities.json", R"({"Capabilities":{"hasBattery":true, "bondedGroupSupportStatus":"NO_SUCH_THING",)"
                               R"("supportedWifiBands":["from the file"]}})");
    Start();
    EXPECT_EQ(Own().capabilities().ShortDebugString(), "hasBattery: true"); // bands come only from the network service
}
