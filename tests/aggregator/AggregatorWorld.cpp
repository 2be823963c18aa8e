#include "tests/aggregator/AggregatorWorld.h"

#include "tests/support/TempDirectory.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace
{

/// Manufacturing data are read once per process. The configuration directory is empty unless a test writes to it.
class Files final : public testing::Environment
{
public:
    void SetUp() override
    {
        std::ofstream(m_folder.Path() + "/mfg.json") << R"({"guid":")" << kOwn << R"("})";
        setenv("SONARIX_MFG_DATA", (m_folder.Path() + "/mfg.json").c_str(), 1);
        std::filesystem::create_directory(m_folder.Path() + "/etc");
        setenv("SONARIX_ETC_DIR", (m_folder.Path() + "/etc/").c_str(), 1);
    }

private:
    TempDirectory m_folder;
};

const testing::Environment* const s_files = testing::AddGlobalTestEnvironment(new Files);

} // namespace

Sonarix::Product Report::By(SXCommon::DiscoveryProtocol protocol) const
{
    Sonarix::Product product;
    product.add_protocols(protocol);
    product.mutable_serviceid()->set_type("_kova-lanyard._tcp");
    product.set_state(SXCommon::ONLINE);
    Sonarix::ProductInfo& info = *product.mutable_productinfo();
    info.set_guid(guid);
    info.set_ecosystem("ORB2");
    if (!name.empty())
    {
        info.set_friendlyname(name);
    }
    if (more)
    {
        more(info);
    }
    return product;
}
