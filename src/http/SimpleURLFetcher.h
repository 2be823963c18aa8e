#pragma once

#include "http/HSMResponse.h"

#include <cstddef>
#include <functional>
#include <string>

struct curl_slist;

namespace Http
{

/// The outcome of one exchange.
struct SimpleURLFetcherResult
{
    Bytes body; ///< only if curlCode is 0
    std::string redirectUrl;
    Headers headers;    ///< of the final response, only if curlCode is 0
    int httpStatus = 0; ///< 0: no response
    int curlCode = 2;   ///< a CURLcode; CURLE_FAILED_INIT before the exchange
    std::string effectiveUrl;

    std::string ETag() const;    ///< empty without that header
    std::string Refresh() const; ///< empty without that header
};

/// One HTTP exchange at a time; blocks the calling thread until it is over. A failed transfer, and a response other
/// than 2xx, is retried as often as SetRetries() allows. Thread: one at a time. Never throws because of the network:
/// all outcomes are in the result.
///
/// Security: uses only http and https, also after a redirect; takes no proxy from the environment; sends no credentials
/// but those set here, and refuses a URL that contains some (CURLE_LOGIN_DENIED).
/// Limitation: the time-out does not cover looking up a host name; libcurl waits for its end.
class SimpleURLFetcher
{
public:
    /// `url` and `proxy` may be empty. If libcurl provides no handle, every later operation logs that and fails.
    SimpleURLFetcher(const std::string& url, const std::string& proxy);
    virtual ~SimpleURLFetcher();
    SimpleURLFetcher(const SimpleURLFetcher&) = delete;
    SimpleURLFetcher& operator=(const SimpleURLFetcher&) = delete;

    /// Each request sends default headers, replaced by those in `headers`. An empty value removes libcurl's own header.
    virtual SimpleURLFetcherResult GET(const Headers& headers);
    virtual SimpleURLFetcherResult POST(const std::string& body, const std::string& contentType,
                                        const Headers& headers);
    /// Passes a body with the content type "multipart/form-data" to PostMultipartFormData().
    virtual SimpleURLFetcherResult POST(const Bytes& body, const std::string& contentType, const Headers& headers);
    /// Posts a form of two parts: "metadata", the body's length as a JSON object, and "file", the body.
    virtual SimpleURLFetcherResult PostMultipartFormData(const Bytes& body, const std::string& contentType,
                                                         const Headers& headers);
    virtual SimpleURLFetcherResult PUT(const std::string& body, const std::string& contentType, const Headers& headers);
    virtual SimpleURLFetcherResult PUT(const Bytes& body, const std::string& contentType, const Headers& headers);
    virtual SimpleURLFetcherResult DELETE(const std::string& contentType, const Headers& headers);

    /// The setters return false if there is no handle, after a level-0 line.
    bool SetURL(const std::string& url);
    bool SetProxy(const std::string& proxy);
    bool SetValidateServerCertificate(bool validate);
    bool SetValidateHostCertificate(bool validate);
    /// Limits connecting, and the whole exchange; 0: no limit. A negative value returns false and changes nothing.
    bool SetTimeOut(float seconds);
    bool SetFollowRedirects(bool follow);
    bool SetSimpleAuthentication(const std::string& user, const std::string& password);

    /// Sets the value of the Authorization header, until SetSimpleAuthentication() is called.
    void SetAuthorization(const std::string& authorization);
    /// Sets the number of retries left for all exchanges of this fetcher together; negative: no limit.
    void SetRetries(int retries);
    void SetRetryDelay(int seconds);

    /// Limit for the headers and the body of a response together; 0, the default: no limit. A longer response ends the
    /// exchange while it arrives, as CURLE_WRITE_ERROR, with one level-2 line that names the URL, and is not retried.
    void SetMaxResponseBytes(std::size_t bytes);

    /// Called before each retry instead of sleep(); `seconds` may be 0. False: do not retry.
    using Pause = std::function<bool(int seconds)>;
    void SetPause(Pause pause);

private:
    static std::size_t OnBody(char* data, std::size_t size, std::size_t count, void* self);
    static std::size_t OnHeader(char* data, std::size_t size, std::size_t count, void* self);
    static std::size_t OnRead(char* room, std::size_t size, std::size_t count, void* self);
    static int OnSeek(void* self, long long offset, int origin);

    bool HasHandle(const char* operation) const;
    bool FixupRequestHeaders_(const std::string& contentType, const Headers& headers);
    SimpleURLFetcherResult DoSendREceive_();
    void Finish(SimpleURLFetcherResult& result);
    bool CountResponse(std::size_t bytes);
    bool WaitForNextRound(int seconds) const;
    void StoreHeader(const std::string& line);

    bool m_validateServerCertificate = true;
    bool m_validateHostCertificate = true;
    Bytes m_requestData;
    std::size_t m_requestOffset = 0; ///< bytes of m_requestData that a PUT has sent
    Bytes m_responseData;
    Headers m_responseHeaders;
    std::string m_url;
    std::string m_proxy;
    std::string m_userPassword;
    std::string m_authorization;
    void* m_curlHandle = nullptr; ///< a CURL
    curl_slist* m_headerList = nullptr;
    int m_retries = 0;
    int m_retryDelay = 0; ///< seconds
    bool m_isDevelopment = false;
    std::size_t m_maxResponseBytes = 0;
    std::size_t m_responseBytes = 0; ///< received in this round
    bool m_responseTooLong = false;
    Pause m_pause;
};

} // namespace Http
