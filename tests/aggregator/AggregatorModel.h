#pragma once

#include "AggregatorWorld.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

/// What the table ought to be, kept in a simpler way than the aggregator's: for random runs side by side.
class AggregatorModel
{
public:
    struct Row
    {
        Row() = default;
        explicit Row(const Sonarix::Product& product)
            : guid(product.productinfo().guid())
            , state(product.state())
            , name(product.productinfo().friendlyname())
            , address(product.productinfo().ipaddress())
            , protocols(product.protocols().begin(), product.protocols().end())
        {
        }

        void Take(const Row& later, bool withAddress)
        {
            guid = later.guid;
            name = later.name.empty() ? name : later.name;
            address = withAddress && !later.address.empty() ? later.address : address;
            protocols.insert(later.protocols.begin(), later.protocols.end());
        }
        std::string Text() const
        {
            std::string text = guid + " '" + name + "' at " + address + " " + SXCommon::ProductState_Name(state);
            for (const int protocol : protocols)
            {
                text += " " + std::to_string(protocol);
            }
            return text;
        }

        std::string guid; ///< empty where only a heartbeat knows it
        SXCommon::ProductState state = SXCommon::INVALID;
        std::string name;
        std::string address;
        std::set<int> protocols;
    };

    /// All of it that is seen from outside.
    std::vector<std::string> Visible() const
    {
        std::vector<std::string> lines;
        for (const auto& [guid, row] : m_rows)
        {
            if (!m_children.contains(guid))
            {
                lines.push_back(row.Text());
            }
        }
        for (const auto& [guid, row] : m_children)
        {
            lines.push_back(row.Text());
        }
        for (const auto& [guid, protocol] : m_connections)
        {
            if (!protocol.empty())
            {
                lines.push_back(guid + " by " + protocol);
            }
        }
        lines.push_back(m_ownName + " at " + m_address + " " + SXCommon::ProductMode_Name(m_mode));
        lines.push_back(Counts(m_children.size(), lists, infos, m_queries));
        return lines;
    }
    static std::string Counts(std::size_t children, std::size_t lists, std::size_t infos, std::size_t queries)
    {
        return std::to_string(children) + " children, notified " + std::to_string(lists) + " lists, " +
               std::to_string(infos) + " infos; asked " + std::to_string(queries) + " times";
    }

    void Reported(const Sonarix::Product& product, const std::string& source)
    {
        const Row reported(product);
        const bool isByMdnsAlone = product.protocols_size() == 1 && product.protocols(0) == SXCommon::MDNS;
        if (product.productinfo().ecosystem() != "ORB2" ||
            (isByMdnsAlone && product.serviceid().type() != "_kova-lanyard._tcp"))
        {
            return;
        }
        if (m_mode == SXCommon::UNKNOWN_MODE && source == "mdns")
        {
            m_heldBack.push_back(product);
            return;
        }
        if (reported.guid == kOwn)
        {
            if (product.productinfo().has_configurations())
            {
                return;
            }
            Advertised(reported.name, false);
        }
        if (source == "child")
        {
            m_children[reported.guid] = reported;
            ++infos;
            ++lists;
            return;
        }
        const bool isNew = !m_rows.contains(reported.guid);
        Row& row = m_rows[reported.guid];
        row.Take(reported, isNew);
        row.state = isNew ? SXCommon::OFFLINE : row.state;
        Connect(reported.guid);
    }

    void ChildRemoved(const std::string& guid)
    {
        const std::size_t removed = m_children.erase(guid);
        infos += removed;
        lists += removed;
    }

    void Answered(const Sonarix::Product& asIfReported)
    {
        const Row answer(asIfReported);
        m_stamps.erase(answer.guid);
        Row& row = m_rows[answer.guid];
        row.Take(answer, true);
        row.state = SXCommon::ONLINE;
        if (answer.guid == kOwn)
        {
            row.name = m_ownName;
            row.address = m_address;
        }
        Reap();
        ++lists;
    }

    void Heartbeat(const std::string& guid, int status)
    {
        Row& row = m_rows[guid];
        if (status == HEARTBEAT_OFFLINE)
        {
            lists += row.state != SXCommon::OFFLINE ? 1U : 0U;
            row.state = SXCommon::OFFLINE;
            m_stamps.try_emplace(guid, nowMs / 1000);
        }
        if (status == HEARTBEAT_OFFLINE || status == HEARTBEAT_ONLINE)
        {
            Query(guid);
        }
        Reap();
    }

    void Advertised(const std::string& name, bool loopsBack = true)
    {
        m_ownName = name.empty() ? m_ownName : name;
        ++infos;
        if (loopsBack && m_mode == SXCommon::UNKNOWN_MODE)
        {
            Connect(kOwn);
        }
    }

    void SetMode(SXCommon::ProductMode mode, const std::string& address)
    {
        const SXCommon::ProductMode before = std::exchange(m_mode, mode);
        const bool isChanged = mode != before || address != m_address;
        m_address = address;
        if (mode != before)
        {
            const bool hadLoopBack = m_connections.contains(kOwn);
            ForgetOthers(m_rows);
            ForgetOthers(m_stamps);
            m_connections.clear();
            if (hadLoopBack)
            {
                Connect(kOwn);
            }
            m_reapAtMs.reset();
            if (before == SXCommon::UNKNOWN_MODE)
            {
                for (const Sonarix::Product& product : std::exchange(m_heldBack, {}))
                {
                    Reported(product, "mdns");
                }
            }
        }
        infos += isChanged ? 1U : 0U;
    }

    void AdvanceTo(std::int64_t untilMs)
    {
        while (std::min(refreshAtMs, m_reapAtMs.value_or(refreshAtMs)) <= untilMs)
        {
            nowMs = std::min(refreshAtMs, m_reapAtMs.value_or(refreshAtMs));
            if (m_reapAtMs == nowMs)
            {
                Reap();
                continue;
            }
            Refreshed(ssdpList);
            Refreshed(mdnsList);
            refreshAtMs += 6LL * 3600 * 1000;
        }
        nowMs = untilMs;
    }

    Sonarix::ProductList ssdpList; ///< what a refresh gets
    Sonarix::ProductList mdnsList;
    std::int64_t nowMs = 0;
    std::int64_t refreshAtMs = 0;
    std::size_t lists = 0; ///< notified
    std::size_t infos = 0;

private:
    template <class Map>
    static void ForgetOthers(Map& map)
    {
        if (map.contains(kOwn))
        {
            std::erase_if(map, [](const auto& entry) { return entry.first != kOwn; });
        }
    }

    void Connect(const std::string& guid)
    {
        const bool isEncrypted = m_mode == SXCommon::SETUP || m_mode == SXCommon::ACCESSORY;
        m_connections.try_emplace(guid, isEncrypted ? "tarsier_mTLS" : "tarsier");
        Query(guid);
    }

    void Query(const std::string& guid)
    {
        m_queries += m_connections[guid].empty() ? 0U : 1U;
    }

    void Reap()
    {
        constexpr std::int64_t kLimit = 1800;
        m_reapAtMs.reset();
        std::int64_t wait = kLimit;
        for (const auto& [guid, stamp] : m_stamps)
        {
            const std::int64_t left = stamp + kLimit - nowMs / 1000;
            if (left <= 0)
            {
                m_connections.erase(guid);
            }
            wait = left >= 0 ? std::min(wait, left) : wait;
        }
        if (std::any_of(m_rows.begin(), m_rows.end(),
                        [this](const auto& entry)
                        { return m_connections.contains(entry.first) && entry.second.state == SXCommon::OFFLINE; }))
        {
            m_reapAtMs = nowMs + std::max<std::int64_t>(wait, 1) * 1000;
        }
    }

    void Refreshed(const Sonarix::ProductList& list)
    {
        for (const Sonarix::Product& product : list.products())
        {
            const Row listed(product);
            if (const auto [known, isNew] = m_rows.try_emplace(listed.guid, listed); isNew)
            {
                Connect(listed.guid);
            }
            else
            {
                known->second.Take(listed, true);
            }
        }
    }

    /// By guid; an empty sub-protocol stands for a place without a connection.
    std::map<std::string, std::string> m_connections;
    std::map<std::string, Row> m_rows;
    std::map<std::string, Row> m_children;
    std::map<std::string, std::int64_t> m_stamps; ///< seconds
    std::vector<Sonarix::Product> m_heldBack;
    SXCommon::ProductMode m_mode = SXCommon::UNKNOWN_MODE;
    std::string m_address;
    std::string m_ownName;
    std::optional<std::int64_t> m_reapAtMs;
    std::size_t m_queries = 0;
};
