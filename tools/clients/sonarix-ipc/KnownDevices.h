#pragma once

#include <map>
#include <string>
#include <vector>

namespace SonarixPb
{
class DeviceInfo;
}

/// The fields of a device record as texts. A value.
struct Device
{
    std::map<std::string, std::string> fields; ///< only the set ones, by path: "guid", "mdnsClockInfo.clockdomain"
    std::string json;                          ///< the whole record, on one line

    const std::string& Field(const std::string& path) const; ///< empty if not set
    bool operator==(const Device& other) const
    {
        return fields == other.fields;
    }
};

/// The result has no fields if the record has no JSON form, that is, if it contains invalid UTF-8. The service sends
/// none.
Device DeviceFromInfo(const SonarixPb::DeviceInfo& info);

/// The change of one device. A value.
struct DeviceChange
{
    enum class Kind
    {
        APPEARED,
        CHANGED,
        GONE,
    };

    Kind kind = Kind::APPEARED;
    Device device; ///< the current record, or the last one of a device that is gone
    Device before; ///< for CHANGED only
};

/// The devices that a watch has received so far. Each operation returns the changes. Not thread-safe.
class KnownDevices final
{
public:
    /// `keyField`: the path of the field that identifies a device.
    explicit KnownDevices(std::string keyField);

    /// Applies a complete list: missing devices are gone, unless they are unconfirmed.
    std::vector<DeviceChange> ApplyList(const std::vector<Device>& devices);
    /// Applies an incomplete list: adds and changes devices, but removes none. The SSDP service leaves out devices that
    /// have not answered its current search yet.
    std::vector<DeviceChange> ApplyPartialList(const std::vector<Device>& devices);
    std::vector<DeviceChange> ApplyReport(bool isOnline, const Device& device);

    /// After a loss of the connection: each device is unconfirmed until it is received again. ApplyList() does not
    /// remove unconfirmed devices.
    void MarkUnconfirmed();
    /// Removes the devices that were not received again since MarkUnconfirmed(). Returns the changes.
    std::vector<DeviceChange> RemoveUnconfirmed();

private:
    struct Entry
    {
        Device device;
        bool isUnconfirmed = false;
    };

    std::string KeyOf(const Device& device) const;
    template <typename Predicate>
    std::vector<DeviceChange> RemoveIf(Predicate isGone);

    std::string m_keyField;
    std::map<std::string, Entry> m_known;
};
