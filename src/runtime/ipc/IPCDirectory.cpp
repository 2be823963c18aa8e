#include "runtime/ipc/IPCDirectory.h"

#include "runtime/SystemUtils.h"

namespace
{

class RunDirectory final : public IPCDirectory
{
public:
    Network::Address Lookup(const std::string& service) const override
    {
        return Network::Address(SystemUtils::RunDir() + '/' + service);
    }
};

} // namespace

std::shared_ptr<IPCDirectory> IPCDirectory::Get()
{
    static const std::shared_ptr<IPCDirectory> s_directory = std::make_shared<RunDirectory>();
    return s_directory;
}
