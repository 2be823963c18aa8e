#include "aggregator/VersionFiles.h"

#include "aggregator/AggregatorLog.h"
#include "runtime/SystemUtils.h"
#include <ProtoToMarkup.h>

#include <cstdlib>
#include <optional>
#include <vector>

namespace SonarixService
{

namespace
{

using Versions = SXCommon::MultiroomVersions;

struct VersionField
{
    const SXCommon::ProtocolVersion& (Versions::*get)() const;
    SXCommon::ProtocolVersion* (Versions::*set)();
};

struct VersionFile
{
    const char* name; ///< without ".json"
    std::vector<VersionField> fields;
};

const VersionFile s_versionFiles[] = {
    {"APMultiroomVersions",
     {{&Versions::audio_payload_version, &Versions::mutable_audio_payload_version},
      {&Versions::audiocontrol_protocol_version, &Versions::mutable_audiocontrol_protocol_version}}},
    {"ClocksyncMultiroomVersions",
     {{&Versions::clocksync_protocol_version, &Versions::mutable_clocksync_protocol_version}}},
    {"HubMultiroomVersions",
     {{&Versions::nowplaying_version, &Versions::mutable_nowplaying_version},
      {&Versions::playbackrequest_version, &Versions::mutable_playbackrequest_version}}},
    {"GroupingMultiroomVersions", {{&Versions::grouping_version, &Versions::mutable_grouping_version}}},
};

template <class Message, class... Name>
void Parse(const std::string& path, const std::string& text, Message& message, const Name&... name)
{
    try
    {
        ProtoToMarkup::FromJson(text, &message, name...);
    }
    catch (const ProtoToMarkup::MarkupError& failure)
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_ERROR, path << ": " << failure.what() << "; its fields stay empty");
    }
}

} // namespace

std::string ResolveEtcDir()
{
    const char* const directory = std::getenv("SONARIX_ETC_DIR");
    return directory != nullptr ? directory : "/opt/Kova/etc/";
}

SXCommon::MultiroomVersions ReadMultiroomVersions(const std::string& etcDir)
{
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "etcDir: " << etcDir);
    Versions versions;
    for (const auto& [name, fields] : s_versionFiles)
    {
        const std::string path = etcDir + name + ".json";
        const std::optional<std::string> text = SystemUtils::ReadFile(path);
        if (!text)
        {
            continue;
        }
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "Read " << name);
        Versions fromFile;
        Parse(path, *text, fromFile);
        for (const auto& [get, set] : fields)
        {
            *(versions.*set)() = (fromFile.*get)();
        }
    }
    return versions;
}

bool ReadCapabilities(const std::string& etcDir, SXCommon::Capabilities& capabilities)
{
    const std::string path = etcDir + "Capabilities.json";
    const std::optional<std::string> text = SystemUtils::ReadFile(path);
    if (text)
    {
        Parse(path, *text, capabilities, std::string("Capabilities"));
    }
    return text.has_value();
}

} // namespace SonarixService
