#include "CleanupConnection.h"

#include <memory>
#include <optional>
#include <utility>

namespace MDNS
{

namespace
{

class CleanupConnection final : public CallbackConnectionIF
{
public:
    CleanupConnection(Callback<> cleanup, std::optional<CallbackConnection> connection)
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
        return m_cleanup && (!m_connection || m_connection->IsConnected());
    }

    void Disconnect() override
    {
        if (IsConnected())
        {
            const Callback<> cleanup = std::exchange(m_cleanup, {}); // once, whoever comes back here meanwhile
            cleanup();
            if (m_connection)
            {
                m_connection->Disconnect();
            }
        }
    }

private:
    Callback<> m_cleanup;
    std::optional<CallbackConnection> m_connection; ///< none: connected until it is disconnected
};

} // namespace

CallbackConnection MakeCleanupConnection(Callback<> cleanup, CallbackConnection connection)
{
    return CallbackConnection(std::make_shared<CleanupConnection>(std::move(cleanup), std::move(connection)));
}

CallbackConnection MakeCleanupConnection(Callback<> cleanup)
{
    return CallbackConnection(std::make_shared<CleanupConnection>(std::move(cleanup), std::nullopt));
}

} // namespace MDNS
