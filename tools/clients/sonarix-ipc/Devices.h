#pragma once

#include <map>
#include <string>
#include <vector>

namespace SonarixPb
{
class DeviceInfo;
}

/// A device as a person reads it. A value.
struct Device
{
    std::map<std::string, std::string> fields; ///< set ones alone, by path: "guid", "mdnsClockInfo.clockdomain"
    std::string json;                          ///< of the whole record, on one line

    const std::string& Field(const std::string& path) const; ///< empty where it is not set
    bool operator==(const Device& other) const
    {
        return fields == other.fields;
    }
};

/// Empty where the record has no JSON form: with text that is no UTF-8, of which the service sends none.
Device DescribeDevice(const SonarixPb::DeviceInfo& info);

/// A value.
struct DeviceChange
{
    enum class Kind
    {
        APPEARED,
        CHANGED,
        GONE,
    };

    Kind kind = Kind::APPEARED;
    Device device; ///< as it is now, or was last
    Device before; ///< of CHANGED
};

/// What a watch has heard of devices, and which of what it hears is news. On one thread; never asks by itself.
class KnownDevices final
{
public:
    /// `keyField`: what tells one device from another.
    explicit KnownDevices(std::string keyField);

    /// Everything that there is; what is missing has gone, unless it is doubted.
    std::vector<DeviceChange> TakeList(const std::vector<Device>& devices);
    /// Adds and changes, but does not remove: from a service that leaves out what it is just asking.
    std::vector<DeviceChange> TakePartOfList(const std::vector<Device>& devices);
    std::vector<DeviceChange> TakeReport(bool isOnline, const Device& device);

    /// The service has been away: what is known is doubted until it is heard of again, and meanwhile not called gone.
    void Doubt();
    /// What is doubted still has gone.
    std::vector<DeviceChange> DropDoubted();

private:
    struct Entry
    {
        Device device;
        bool isDoubted = false;
    };

    std::string KeyOf(const Device& device) const;
    template <typename Predicate>
    std::vector<DeviceChange> DropIf(Predicate isGone);

    std::string m_keyField;
    std::map<std::string, Entry> m_known;
};
