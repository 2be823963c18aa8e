#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

class NotifyTargetTaskIF;

namespace Gateway
{

/// Finds the addresses of a product by its mDNS record.
class MdnsLookupIF
{
public:
    using AddressesCallback = std::function<void(const std::vector<std::string>& addresses)>;

    virtual ~MdnsLookupIF() = default;
    /// Numeric addresses of the records that carry the guid, none where there is none or no mDNS daemon.
    virtual void Find(const std::string& guid, AddressesCallback callback) = 0;
};

class MdnsWorker;

/// The look-up through the mDNS daemon. The first question starts a task of its own, as calls to the daemon block;
/// from then on the records are followed, so that a question costs one resolve of what carries the guid.
/// Task: everything on `task`; answers come on it, never from inside the call, and none after the destructor.
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
    const std::shared_ptr<bool> m_alive = std::make_shared<bool>(true); ///< seen weakly by answers on their way
};

} // namespace Gateway
