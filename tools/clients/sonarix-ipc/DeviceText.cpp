#include "tools/clients/sonarix-ipc/DeviceText.h"

#include "tools/clients/options/Printable.h"

#include <algorithm>
#include <array>
#include <set>
#include <utility>

namespace
{

using Row = std::vector<std::string>;

constexpr std::array<std::pair<const char*, const char*>, 9> kColumns = {{
    {"NAME", "friendlyname"},
    {"ADDRESS", "ipaddress"},
    {"GUID", "guid"},
    {"TYPE", "producttype"},
    {"MODEL", "modelname"},
    {"SOFTWARE", "softwareversion"},
    {"CLOCK", "mdnsClockInfo.clockdomain"},
    {"LEADER", "mdnsClockInfo.leaderelected"},
    {"LOCATION", "location"},
}};

/// Returns the number of characters, which is that of columns for most texts.
std::size_t Width(const std::string& text)
{
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char byte) { return (byte & 0xC0) != 0x80; }));
}

std::string Joined(const Row& cells, const std::vector<std::size_t>& widths)
{
    std::string line;
    for (std::size_t column = 0; column < cells.size(); ++column)
    {
        line += cells[column] + std::string(widths[column] - Width(cells[column]) + 2, ' ');
    }
    return line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
}

std::string OrNone(const std::string& text)
{
    return text.empty() ? "-" : Printable(text);
}

std::string Differences(const Device& before, const Device& after)
{
    std::set<std::string> paths;
    for (const auto* const device : {&before, &after})
    {
        for (const auto& [path, value] : device->fields)
        {
            paths.insert(path);
        }
    }
    std::string text;
    for (const std::string& path : paths)
    {
        const std::string& old = before.Field(path);
        const std::string& now = after.Field(path);
        if (old != now)
        {
            text += (text.empty() ? "" : ", ") + Printable(path) + " " + OrNone(old) + " -> " + OrNone(now);
        }
    }
    return text;
}

} // namespace

std::string DeviceTable(const std::vector<Device>& devices)
{
    std::vector<Row> rows(devices.size() + 1);
    std::vector<std::size_t> widths;
    for (const auto& [title, path] : kColumns)
    {
        const std::string field = path;
        if (std::none_of(devices.begin(), devices.end(),
                         [&](const Device& device) { return !device.Field(field).empty(); }))
        {
            continue;
        }
        rows[0].push_back(title);
        widths.push_back(rows[0].back().size());
        for (std::size_t index = 0; index < devices.size(); ++index)
        {
            rows[index + 1].push_back(OrNone(devices[index].Field(field)));
            widths.back() = std::max(widths.back(), Width(rows[index + 1].back()));
        }
    }
    std::string text;
    for (const Row& row : rows)
    {
        text += Joined(row, widths);
    }
    return text;
}

std::string ChangeText(const DeviceChange& change)
{
    const Device& device = change.device;
    const std::string name = OrNone(device.Field("friendlyname"));
    const std::string guid = OrNone(device.Field("guid"));
    switch (change.kind)
    {
    case DeviceChange::Kind::APPEARED:
        return "+ " + name + "  " + OrNone(device.Field("ipaddress")) + "  " + guid;
    case DeviceChange::Kind::CHANGED:
        return "~ " + name + "  " + Differences(change.before, device);
    default:
        return "- " + name + "  " + guid;
    }
}

std::string ChangeJson(const DeviceChange& change)
{
    static constexpr std::array<const char*, 3> kinds = {"appeared", "changed", "gone"};
    std::string text = std::string(R"({"change":")") + kinds[static_cast<std::size_t>(change.kind)] + R"(","device":)" +
                       change.device.json;
    if (change.kind == DeviceChange::Kind::CHANGED)
    {
        text += R"(,"before":)" + change.before.json;
    }
    return text + "}";
}
