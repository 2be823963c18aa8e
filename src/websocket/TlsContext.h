#pragma once

#include "websocket/WebSocket.h"

#include <string>

struct ssl_ctx_st;
struct ssl_st;

namespace WebSocket
{

/// The OpenSSL context of a TlsIdentity: TLS 1.2 and later, client and server. The peer must always show a
/// certificate that ca.pem has signed. Shared by connections.
/// Task: that of the connections.
class TlsContext final : public TlsIdentity
{
public:
    TlsContext();
    ~TlsContext() override;
    TlsContext(const TlsContext&) = delete;
    TlsContext& operator=(const TlsContext&) = delete;

    /// Returns false and sets `error` if a file cannot be used.
    bool ReadFiles(const std::string& directory, std::string& error);

    /// A TLS session for one connection, which the caller frees. Null if memory is short.
    ssl_st* NewSession(int descriptor, bool server) const;

private:
    ssl_ctx_st* m_context;
};

/// Common name of the peer's certificate; empty if there is none.
std::string PeerCommonName(const ssl_st* session);

/// Whether the peer's certificate has `name` as common name or DNS name. Compared byte by byte.
bool PeerHasName(const ssl_st* session, const std::string& name);

/// OpenSSL's text for the last error, or `otherwise`.
std::string TlsErrorText(const std::string& otherwise);

} // namespace WebSocket
