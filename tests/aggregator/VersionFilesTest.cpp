#include "VersionFiles.h"
#include "AggregatorWorld.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

using namespace SonarixService;

namespace
{

/// A configuration directory of its own, and SONARIX_ETC_DIR as it was afterwards.
class VersionFilesTest : public testing::Test
{
protected:
    VersionFilesTest()
    {
        EXPECT_NE(mkdtemp(m_folder.data()), nullptr);
    }
    ~VersionFilesTest() override
    {
        setenv("SONARIX_ETC_DIR", m_before.c_str(), 1);
        std::filesystem::remove_all(m_folder);
    }

    std::string Dir() const
    {
        return m_folder + "/";
    }
    void Write(const std::string& name, const std::string& text) const
    {
        std::ofstream(Dir() + name) << text;
    }

    const std::string m_before = ResolveEtcDir();
    std::string m_folder = (std::filesystem::temp_directory_path() / "version-files-XXXXXX").string();
};

} // namespace

TEST_F(VersionFilesTest, OnlyAnUnsetVariableSelectsTheDefaultDirectory)
{
    unsetenv("SONARIX_ETC_DIR");
    EXPECT_EQ(ResolveEtcDir(), "/opt/Kova/etc/");
    setenv("SONARIX_ETC_DIR", "", 1);
    EXPECT_EQ(ResolveEtcDir(), "");
    setenv("SONARIX_ETC_DIR", "/somewhere", 1);
    EXPECT_EQ(ResolveEtcDir(), "/somewhere"); // the closing slash is the caller's duty
}

TEST_F(VersionFilesTest, EachFileSpeaksForItsOwnFieldsAlone)
{
    const std::string all = R"({"Audio_Payload_Version":{"major_version":1},
        "AudioControl_Protocol_Version":{"major_version":2}, "ClockSync_Protocol_Version":{"major_version":3},
        "NowPlaying_Version":{"major_version":4}, "PlaybackRequest_Version":{"major_version":5},
        "ZoneControl_Version":{"major_version":6}, "Grouping_Version":{"major_version":7, "minor_version":8}})";

    Write("ClocksyncMultiroomVersions.json", all);
    const LogLines log;
    SXCommon::MultiroomVersions versions = ReadMultiroomVersions(Dir());
    EXPECT_EQ(versions.clocksync_protocol_version().major_version(), 3);
    EXPECT_EQ(versions.ByteSizeLong(), 4U); // nothing else
    EXPECT_EQ(log.Count("etcDir: " + Dir(), 3), 1U);
    EXPECT_EQ(log.Count("Read ClocksyncMultiroomVersions", 3), 1U);
    EXPECT_EQ(log.Count("Read "), 1U);
    EXPECT_EQ(log.Count("", 1), 0U); // a missing file is nobody's fault

    for (const char* const name :
         {"APMultiroomVersions.json", "HubMultiroomVersions.json", "GroupingMultiroomVersions.json"})
    {
        Write(name, all);
    }
    versions = ReadMultiroomVersions(Dir());
    EXPECT_EQ(versions.audio_payload_version().major_version(), 1);
    EXPECT_EQ(versions.audiocontrol_protocol_version().major_version(), 2);
    EXPECT_EQ(versions.nowplaying_version().major_version(), 4);
    EXPECT_EQ(versions.playbackrequest_version().major_version(), 5);
    EXPECT_EQ(versions.grouping_version().minor_version(), 8);
    EXPECT_FALSE(versions.has_zonecontrol_version());
}

TEST_F(VersionFilesTest, AFileThatWasReadAlwaysShowsUpAsPresentFields)
{
    Write("HubMultiroomVersions.json", R"({"NowPlaying_Version":{"major_version":4}})");
    for (const char* const broken : {"[]", "{", "", R"({"Audio_Payload_Version":"x"})", "\xff"})
    {
        Write("APMultiroomVersions.json", broken);
        const LogLines log;
        const SXCommon::MultiroomVersions versions = ReadMultiroomVersions(Dir());
        EXPECT_EQ(versions.nowplaying_version().major_version(), 4);
        EXPECT_TRUE(versions.has_playbackrequest_version());
        EXPECT_FALSE(versions.playbackrequest_version().has_major_version());
        EXPECT_TRUE(versions.has_audio_payload_version()) << broken;
        EXPECT_EQ(versions.audio_payload_version().ByteSizeLong(), 0U) << broken;
        EXPECT_FALSE(versions.has_grouping_version());
        EXPECT_EQ(log.Count("APMultiroomVersions.json", 1), 1U) << broken;
        EXPECT_EQ(log.Count("", 1), 1U) << broken;
    }
}

TEST_F(VersionFilesTest, CapabilitiesStandUnderTheirRootKey)
{
    SXCommon::Capabilities capabilities;
    EXPECT_FALSE(ReadCapabilities(Dir(), capabilities));
    Write("Capabilities.json", R"({"Capabilities":{"numChannels":2, "bondedGroupSupportStatus":"NO_SUCH_THING"}})");
    EXPECT_TRUE(ReadCapabilities(Dir(), capabilities));
    EXPECT_EQ(capabilities.numchannels(), 2);
    EXPECT_FALSE(capabilities.has_bondedgroupsupportstatus());

    const LogLines log;
    Write("Capabilities.json", "[1]");
    EXPECT_TRUE(ReadCapabilities(Dir(), capabilities));
    EXPECT_EQ(log.Count("Capabilities.json", 1), 1U);
}

TEST_F(VersionFilesTest, TheServiceStartsWhateverTheFilesHold)
{
    setenv("SONARIX_ETC_DIR", Dir().c_str(), 1);
    Write("GroupingMultiroomVersions.json", "garbage");
    Write("Capabilities.json", "[]");
    {
        AggregatorWorld world;
        world.Start();
        EXPECT_TRUE(world.Own().multiroom().has_grouping_version());
        EXPECT_TRUE(world.Own().has_capabilities());
    }
    Write("Capabilities.json", R"({"Capabilities":{"hasBattery":true, "supportedWifiBands":["from the file"]}})");
    AggregatorWorld world;
    world.Start();
    EXPECT_TRUE(world.Own().capabilities().hasbattery());
    EXPECT_EQ(world.Own().capabilities().supportedwifibands_size(), 0); // the network service's word alone
}
