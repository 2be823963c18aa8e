#pragma once

#include "websocket/WebSocket.h"

#include <string>

struct ssl_ctx_st;
struct ssl_st;

namespace WebSocket
{

/// The OpenSSL side of a TlsIdentity: TLS 1.2 and later, both roles, the peer's certificate always required and
/// held against the directory's ca.pem. Shared by connections; used on their task alone.
class TlsContext final : public TlsIdentity
{
public:
    TlsContext();
    ~TlsContext() override;
    TlsContext(const TlsContext&) = delete;
    TlsContext& operator=(const TlsContext&) = delete;

    /// False, with the reason in `error`.
    bool ReadFiles(const std::string& directory, std::string& error);

    /// A session for one connection, the caller's to free. Null where memory is short.
    ssl_st* NewSession(int descriptor, bool server) const;

private:
    ssl_ctx_st* m_context;
};

/// Common name of the certificate that the peer has shown, empty where there is none.
std::string PeerCommonName(const ssl_st* session);

/// Whether that certificate carries `name`, as common name or as DNS name. Compared byte by byte.
bool PeerHasName(const ssl_st* session, const std::string& name);

/// What OpenSSL has against the last operation: its own text, or `otherwise`.
std::string TlsErrorText(const std::string& otherwise);

} // namespace WebSocket
