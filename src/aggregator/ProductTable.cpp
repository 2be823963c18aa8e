#include "aggregator/ProductTable.h"

#include "aggregator/AggregatorLog.h"
#include "aggregator/ProductMerge.h"
#include "runtime/MonotonicClock.h"
#include "runtime/TaskCheck.h"

#include <utility>

namespace SonarixService
{

ProductTable::ProductTable(const NotifyTargetTaskIF* task)
    : m_task(task)
{
}

Sonarix::Product* ProductTable::Find(const std::string& guid)
{
    TASK_CHECK(m_task);
    const auto row = m_products.find(guid);
    return row != m_products.end() ? &row->second : nullptr;
}

Sonarix::Product& ProductTable::Row(const std::string& guid)
{
    TASK_CHECK(m_task);
    return m_products[guid];
}

const ProductTable::Products& ProductTable::Rows() const
{
    TASK_CHECK(m_task);
    return m_products;
}

void ProductTable::Track(const Sonarix::Product& product)
{
    TASK_CHECK(m_task);
    Sonarix::ProductInfo before;
    if (const Sonarix::Product* const known = Find(product.productinfo().guid()))
    {
        CopyAddress(known->productinfo(), before);
    }
    const bool isNew = Refresh(product);
    Sonarix::Product& row = Row(product.productinfo().guid());
    if (isNew)
    {
        row.set_state(SXCommon::OFFLINE);
    }
    else
    {
        CopyAddress(before, *row.mutable_productinfo());
    }
}

bool ProductTable::Refresh(const Sonarix::Product& product)
{
    TASK_CHECK(m_task);
    const std::string& guid = product.productinfo().guid();
    Sonarix::Product* const known = Find(guid);
    if (known == nullptr)
    {
        Row(guid) = product;
        return true;
    }
    Sonarix::Product merged = MergeProducts(*known, product);
    merged.set_state(known->state());
    *known = std::move(merged);
    return false;
}

Sonarix::Product& ProductTable::SetOnline(const Sonarix::ProductInfo& info)
{
    TASK_CHECK(m_task);
    m_offlineStamps.erase(info.guid());
    Sonarix::Product& row = Row(info.guid());
    Sonarix::ProductInfo merged = MergeProductInfo(row.productinfo(), info);
    row.set_state(SXCommon::ONLINE);
    *row.mutable_productinfo() = std::move(merged);
    return row;
}

bool ProductTable::SetOffline(const std::string& guid)
{
    TASK_CHECK(m_task);
    Sonarix::Product& row = Row(guid);
    const bool isChanged = row.state() != SXCommon::OFFLINE;
    row.set_state(SXCommon::OFFLINE);
    return isChanged;
}

void ProductTable::StampOffline(const std::string& guid)
{
    TASK_CHECK(m_task);
    m_offlineStamps.try_emplace(guid, MonotonicClock::NowSec());
}

void ProductTable::KeepOnly(const std::string& guid)
{
    TASK_CHECK(m_task);
    const auto isOther = [&guid](const auto& entry) { return entry.first != guid; };
    if (m_products.contains(guid))
    {
        std::erase_if(m_products, isOther);
    }
    if (m_offlineStamps.contains(guid))
    {
        std::erase_if(m_offlineStamps, isOther);
    }
}

const ProductTable::Stamps& ProductTable::OfflineStamps() const
{
    TASK_CHECK(m_task);
    return m_offlineStamps;
}

void ProductTable::AddChild(const Sonarix::Product& product)
{
    TASK_CHECK(m_task);
    m_children[product.productinfo().guid()] = product;
}

bool ProductTable::RemoveChild(const std::string& guid)
{
    TASK_CHECK(m_task);
    return m_children.erase(guid) > 0;
}

const ProductTable::Products& ProductTable::Children() const
{
    return m_children;
}

std::vector<const Sonarix::Product*> ProductTable::CollectRows() const
{
    TASK_CHECK(m_task);
    std::vector<const Sonarix::Product*> rows;
    for (const auto& [guid, product] : m_products)
    {
        if (m_children.contains(guid))
        {
            DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO,
                   "Skip adding product with guid " << guid << " to the combined list because it is our child");
            continue;
        }
        rows.push_back(&product);
    }
    for (const auto& [guid, product] : m_children)
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_DEBUG,
               "Adding child product with guid " << guid << " to the combined list");
        rows.push_back(&product);
    }
    for (const Sonarix::Product* const product : rows)
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_DEBUG,
               "Combined product Guid: |" << product->productinfo().guid() << "| "
                                          << " State: |" << SXCommon::ProductState_Name(product->state()) << "| ");
    }
    return rows;
}

} // namespace SonarixService
