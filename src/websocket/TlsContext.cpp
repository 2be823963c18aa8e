#include "websocket/TlsContext.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <cerrno>
#include <memory>

#include <sys/socket.h>

namespace WebSocket
{
namespace
{

std::string ToText(const ASN1_STRING* string)
{
    if (string == nullptr)
    {
        return {};
    }
    return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(string)),
            static_cast<std::size_t>(ASN1_STRING_length(string))};
}

std::string CommonName(const X509* certificate)
{
    const X509_NAME* const subject = X509_get_subject_name(certificate);
    const int index = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
    return index < 0 ? std::string() : ToText(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index)));
}

bool HasDnsName(const X509* certificate, const std::string& name)
{
    const std::unique_ptr<GENERAL_NAMES, decltype(&GENERAL_NAMES_free)> names(
        static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)),
        &GENERAL_NAMES_free);
    for (int i = 0; names != nullptr && i < sk_GENERAL_NAME_num(names.get()); ++i)
    {
        const GENERAL_NAME* const entry = sk_GENERAL_NAME_value(names.get(), i);
        if (entry->type == GEN_DNS && ToText(entry->d.dNSName) == name)
        {
            return true;
        }
    }
    return false;
}

/// Like OpenSSL's socket write, but with MSG_NOSIGNAL: a closed connection is an error, not SIGPIPE.
int WriteToSocket(BIO* bio, const char* data, int size)
{
    BIO_clear_retry_flags(bio);
    const ssize_t sent =
        ::send(static_cast<int>(BIO_get_fd(bio, nullptr)), data, static_cast<std::size_t>(size), MSG_NOSIGNAL);
    if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
    {
        BIO_set_retry_write(bio);
    }
    return static_cast<int>(sent);
}

/// The BIO method of all TLS connections. Created once, never freed.
const BIO_METHOD* SocketMethod()
{
    static const BIO_METHOD* const s_method = []
    {
        const BIO_METHOD* const base = BIO_s_socket();
        BIO_METHOD* const method = BIO_meth_new(BIO_TYPE_SOCKET, "socket without SIGPIPE");
        BIO_meth_set_write(method, &WriteToSocket);
        BIO_meth_set_read(method, BIO_meth_get_read(base));
        BIO_meth_set_puts(method, BIO_meth_get_puts(base));
        BIO_meth_set_ctrl(method, BIO_meth_get_ctrl(base));
        BIO_meth_set_create(method, BIO_meth_get_create(base));
        BIO_meth_set_destroy(method, BIO_meth_get_destroy(base));
        return method;
    }();
    return s_method;
}

} // namespace

std::string TlsErrorText(const std::string& otherwise)
{
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    if (code == 0)
    {
        return otherwise;
    }
    const char* const reason = ERR_reason_error_string(code);
    return reason != nullptr ? reason : "TLS error " + std::to_string(code);
}

TlsContext::TlsContext()
    : m_context(SSL_CTX_new(TLS_method()))
{
}

TlsContext::~TlsContext()
{
    SSL_CTX_free(m_context);
}

bool TlsContext::ReadFiles(const std::string& directory, std::string& error)
{
    ERR_clear_error();
    if (m_context == nullptr)
    {
        error = TlsErrorText("no TLS");
        return false;
    }
    SSL_CTX_set_min_proto_version(m_context, TLS1_2_VERSION);
    // RELEASE_BUFFERS: an idle connection keeps no record buffers. Resumption is off, so no sessions or tickets are
    // stored.
    SSL_CTX_set_mode(m_context,
                     SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_options(m_context, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION | SSL_OP_NO_TICKET);
    SSL_CTX_set_session_cache_mode(m_context, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_num_tickets(m_context, 0);
    SSL_CTX_set_verify(m_context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);

    const std::string ca = directory + "/ca.pem";
    const std::string certificate = directory + "/cert.pem";
    const std::string key = directory + "/key.pem";
    if (SSL_CTX_load_verify_file(m_context, ca.c_str()) != 1)
    {
        error = ca + ": " + TlsErrorText("cannot be read");
        return false;
    }
    SSL_CTX_set_client_CA_list(m_context, SSL_load_client_CA_file(ca.c_str()));
    if (SSL_CTX_use_certificate_chain_file(m_context, certificate.c_str()) != 1)
    {
        error = certificate + ": " + TlsErrorText("cannot be read");
        return false;
    }
    if (SSL_CTX_use_PrivateKey_file(m_context, key.c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_check_private_key(m_context) != 1)
    {
        error = key + ": " + TlsErrorText("cannot be read");
        return false;
    }
    return true;
}

ssl_st* TlsContext::NewSession(int descriptor, bool server) const
{
    SSL* const session = SSL_new(m_context);
    if (session == nullptr)
    {
        return nullptr;
    }
    BIO* const bio = BIO_new(SocketMethod());
    if (bio == nullptr)
    {
        SSL_free(session);
        return nullptr;
    }
    BIO_set_fd(bio, descriptor, BIO_NOCLOSE);
    SSL_set_bio(session, bio, bio);
    if (server)
    {
        SSL_set_accept_state(session);
    }
    else
    {
        SSL_set_connect_state(session);
    }
    return session;
}

std::string PeerCommonName(const ssl_st* session)
{
    const X509* const certificate = SSL_get0_peer_certificate(session);
    return certificate == nullptr ? std::string() : CommonName(certificate);
}

bool PeerHasName(const ssl_st* session, const std::string& name)
{
    const X509* const certificate = SSL_get0_peer_certificate(session);
    return certificate != nullptr && (CommonName(certificate) == name || HasDnsName(certificate, name));
}

std::shared_ptr<TlsIdentity> TlsIdentity::Load(const std::string& directory, std::string& error)
{
    auto identity = std::make_shared<TlsContext>();
    return identity->ReadFiles(directory, error) ? identity : nullptr;
}

} // namespace WebSocket
