#include "aggregator/VersionFiles.h"

#include "aggregator/AggregatorLog.h"
#include "runtime/SystemUtils.h"
#include <ProtoToMarkup.h>

#include <cstdlib>
#include <optional>

namespace SonarixService
{

namespace
{

using SXCommon::MultiroomVersions;

/// One versions file and the fields that are taken from it.
struct VersionFile
{
    const char* name;
    const char* logLine;
    void (*take)(const MultiroomVersions& from, MultiroomVersions& to);
};

// Assigning through a mutable reference marks a field as present even where the file lacks it.
const VersionFile s_versionFiles[] = {
    {"APMultiroomVersions.json", "Read APMultiroomVersions",
     [](const MultiroomVersions& from, MultiroomVersions& to)
     {
         *to.mutable_audio_payload_version() = from.audio_payload_version();
         *to.mutable_audiocontrol_protocol_version() = from.audiocontrol_protocol_version();
     }},
    {"ClocksyncMultiroomVersions.json", "Read ClocksyncMultiroomVersions",
     [](const MultiroomVersions& from, MultiroomVersions& to)
     { *to.mutable_clocksync_protocol_version() = from.clocksync_protocol_version(); }},
    {"HubMultiroomVersions.json", "Read HubMultiroomVersions",
     [](const MultiroomVersions& from, MultiroomVersions& to)
     {
         *to.mutable_nowplaying_version() = from.nowplaying_version();
         *to.mutable_playbackrequest_version() = from.playbackrequest_version();
     }},
    {"GroupingMultiroomVersions.json", "Read GroupingMultiroomVersions",
     [](const MultiroomVersions& from, MultiroomVersions& to)
     { *to.mutable_grouping_version() = from.grouping_version(); }},
};

} // namespace

std::string ResolveEtcDir()
{
    const char* const directory = std::getenv("SONARIX_ETC_DIR");
    return directory != nullptr ? directory : "/opt/Kova/etc/";
}

MultiroomVersions ReadMultiroomVersions(const std::string& etcDir)
{
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "etcDir: " << etcDir);
    MultiroomVersions versions;
    for (const VersionFile& file : s_versionFiles)
    {
        const std::optional<std::string> text = SystemUtils::ReadFile(etcDir + file.name);
        if (!text)
        {
            continue;
        }
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, file.logLine);
        MultiroomVersions fromFile;
        try
        {
            ProtoToMarkup::FromJson(*text, &fromFile);
        }
        catch (const ProtoToMarkup::MarkupError& failure)
        {
            DPRINT(s_aggregatorLog, DPrint::LEVEL_ERROR,
                   etcDir << file.name << ": " << failure.what() << "; its versions go out empty");
        }
        file.take(fromFile, versions);
    }
    return versions;
}

bool ReadCapabilities(const std::string& etcDir, SXCommon::Capabilities& capabilities)
{
    const std::string path = etcDir + "Capabilities.json";
    const std::optional<std::string> text = SystemUtils::ReadFile(path);
    if (!text)
    {
        return false;
    }
    try
    {
        ProtoToMarkup::FromJson(*text, &capabilities, "Capabilities");
    }
    catch (const ProtoToMarkup::MarkupError& failure)
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_ERROR, path << ": " << failure.what() << "; going on without");
    }
    return true;
}

} // namespace SonarixService
