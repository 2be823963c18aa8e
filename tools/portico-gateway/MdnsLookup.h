#pragma once

#include "runtime/Liveness.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

class NotifyTargetTaskIF;

namespace Gateway
{

/// Finds the addresses of a product by its mDNS records.
class MdnsLookupIF
{
public:
    using AddressesCallback = std::function<void(const std::vector<std::string>& addresses)>;

    virtual ~MdnsLookupIF() = default;
    /// `callback` gets the numeric addresses of all records with the guid. The list is empty if there is no such
    /// record or no mDNS daemon.
    virtual void Find(const std::string& guid, AddressesCallback callback) = 0;
};

class MdnsWorker;

/// Looks products up through the mDNS daemon. The first query starts a separate task, since calls to the daemon
/// block. From then on the records are browsed, so that a query costs one resolve per record with the guid.
/// Task: everything on `task`. Answers come on it, never from inside Find(), and none after destruction.
class MdnsLookup final : public MdnsLookupIF
{
public:
    explicit MdnsLookup(NotifyTargetTaskIF* task);
    ~MdnsLookup() override;
    MdnsLookup(const MdnsLookup&) = delete;
    MdnsLookup& operator=(const MdnsLookup&) = delete;

    void Find(const std::string& guid, AddressesCallback callback) override;

private:
    NotifyTargetTaskIF* m_task;
    NotifyTargetTaskIF* m_workerTask = nullptr;
    std::shared_ptr<MdnsWorker> m_worker;
    Liveness m_liveness;
};

} // namespace Gateway
