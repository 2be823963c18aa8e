#pragma once

#include "AggregatorWorld.h"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

/// What the table ought to be, kept in a simpler way than the aggregator's: for random runs side by side.
struct AggregatorModel
{
    struct Row
    {
        SXCommon::ProductState state = SXCommon::INVALID;
        std::set<int> protocols;
        std::string guid; ///< empty where only a heartbeat knows it
        std::optional<std::string> address;
        std::optional<std::string> name;
    };

    enum class Source
    {
        CHILD,
        MDNS,
        SSDP,
    };

    struct Sighting
    {
        Report report;
        bool isOfFamily = true;
        bool hasConfigurations = false; ///< what an own report must not have

        Sonarix::Product Product() const;
        Row AsRow() const;
    };

    void Reported(const Sighting& sighting, Source source);
    void ChildRemoved(const std::string& guid);
    void Answered(const std::string& guid, const std::optional<std::string>& name,
                  const std::optional<std::string>& itsAddress);
    void Heartbeat(const std::string& guid, int status);
    void Advertised(const std::string& name);
    void SetMode(SXCommon::ProductMode newMode, const std::string& newAddress);
    void AdvanceTo(std::int64_t untilMs);

    /// Connections by guid; an empty sub-protocol stands for a place without a connection.
    std::map<std::string, std::string> connections;
    std::map<std::string, Row> rows;
    std::map<std::string, Row> children;
    std::map<std::string, std::int64_t> stamps; ///< seconds
    std::vector<Sighting> heldBack;
    std::vector<Sighting> ssdpList; ///< what a refresh gets
    std::vector<Sighting> mdnsList;

    SXCommon::ProductMode mode = SXCommon::UNKNOWN_MODE;
    std::string address;
    std::optional<std::string> ownName;

    std::int64_t nowMs = 0;
    std::optional<std::int64_t> reapAtMs;
    std::int64_t refreshAtMs = 0;

    std::size_t listsNotified = 0;
    std::size_t infosNotified = 0;
    std::size_t queries = 0;

private:
    void Connect(const std::string& guid);
    void Query(const std::string& guid);
    void Pass();
    void Refreshed(const std::vector<Sighting>& list);
};
