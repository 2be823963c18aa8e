#include "Mdns/avahi/CleanupConnection.h"

#include <memory>
#include <utility>

namespace MDNS
{

namespace
{

class CleanupConnection final : public CallbackConnectionIF
{
public:
    CleanupConnection(Callback<> cleanup, CallbackConnection connection)
        : m_cleanup(std::move(cleanup))
        , m_connection(std::move(connection))
    {
    }
    ~CleanupConnection() override
    {
        Disconnect();
    }
    CleanupConnection(const CleanupConnection&) = delete;
    CleanupConnection& operator=(const CleanupConnection&) = delete;

    bool IsConnected() const override
    {
        return m_cleanup && (m_connection == nullptr || m_connection.IsConnected());
    }

    void Disconnect() override
    {
        if (IsConnected())
        {
            const Callback<> cleanup = std::exchange(m_cleanup, {}); // runs once, even if it calls Disconnect()
            cleanup();
            m_connection.Disconnect();
        }
    }

private:
    Callback<> m_cleanup;
    CallbackConnection m_connection; ///< may be empty
};

} // namespace

CallbackConnection MakeCleanupConnection(Callback<> cleanup, CallbackConnection connection)
{
    return CallbackConnection(std::make_shared<CleanupConnection>(std::move(cleanup), std::move(connection)));
}

} // namespace MDNS
