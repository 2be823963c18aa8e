#pragma once

#include "http/HSMResponse.h"

#include <cstddef>
#include <functional>
#include <string>

struct curl_slist;

namespace Http
{

/// What one exchange came to. A value.
struct SimpleURLFetcherResult
{
    Bytes body; ///< only where curlCode is 0
    std::string redirectUrl;
    Headers headers;    ///< of the final answer, only where curlCode is 0
    int httpStatus = 0; ///< 0 where none came
    int curlCode = 2;   ///< a CURLcode; CURLE_FAILED_INIT until the exchange was tried
    std::string effectiveUrl;

    std::string ETag() const;    ///< that header's value, or nothing
    std::string Refresh() const; ///< that header's value, or nothing
};

/// One HTTP exchange at a time, on the caller's thread, which it blocks until the exchange is over; an exchange that
/// failed in transfer, or was not answered by a 2xx, is tried anew as often as SetRetries() says.
/// Thread: one, whichever uses it. Never throws on what the network does: all outcomes are in the result.
///
/// It speaks http and https and nothing else, also where it is redirected; takes no proxy from the environment; and
/// knows no credentials but those that it is given here: a URL that holds some is refused (CURLE_LOGIN_DENIED).
/// Not bounded: looking up a host name, for which libcurl waits although the time-out has passed.
class SimpleURLFetcher
{
public:
    /// Both may be empty. Where libcurl gives no handle, every later operation reports so and fails.
    SimpleURLFetcher(const std::string& url, const std::string& proxy);
    virtual ~SimpleURLFetcher();
    SimpleURLFetcher(const SimpleURLFetcher&) = delete;
    SimpleURLFetcher& operator=(const SimpleURLFetcher&) = delete;

    /// Each sends `headers` over its default headers; an empty value keeps libcurl from sending its own header.
    virtual SimpleURLFetcherResult GET(const Headers& headers);
    virtual SimpleURLFetcherResult POST(const std::string& body, const std::string& contentType,
                                        const Headers& headers);
    /// The content type "multipart/form-data" goes to PostMultipartFormData().
    virtual SimpleURLFetcherResult POST(const Bytes& body, const std::string& contentType, const Headers& headers);
    /// A form of two parts: "metadata", the body's length as a JSON object, and "file", the body.
    virtual SimpleURLFetcherResult PostMultipartFormData(const Bytes& body, const std::string& contentType,
                                                         const Headers& headers);
    virtual SimpleURLFetcherResult PUT(const std::string& body, const std::string& contentType, const Headers& headers);
    virtual SimpleURLFetcherResult PUT(const Bytes& body, const std::string& contentType, const Headers& headers);
    virtual SimpleURLFetcherResult DELETE(const std::string& contentType, const Headers& headers);

    /// False: no handle, after a level-0 line.
    bool SetURL(const std::string& url);
    bool SetProxy(const std::string& proxy);
    bool SetValidateServerCertificate(bool validate);
    bool SetValidateHostCertificate(bool validate);
    /// For connecting, and for the whole exchange; 0 is no limit. False also below 0, which changes nothing.
    bool SetTimeOut(float seconds);
    bool SetFollowRedirects(bool follow);
    bool SetSimpleAuthentication(const std::string& user, const std::string& password);

    /// The value of an Authorization header, until SetSimpleAuthentication().
    void SetAuthorization(const std::string& authorization);
    /// How often this fetcher may try anew, over all its exchanges; negative: for ever.
    void SetRetries(int retries);
    void SetRetryDelay(int seconds);

    /// An answer whose headers and body are longer ends the exchange as it arrives, as CURLE_WRITE_ERROR, with one
    /// level-2 line that names the URL, and is not tried anew. 0, as at construction: no limit.
    void SetMaxAnswerBytes(std::size_t bytes);

    /// How to wait before an exchange is tried anew, instead of sleeping. 0 seconds is no wait. False: do not try anew.
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
    bool CountAnswer(std::size_t bytes);
    bool WaitForNextRound(int seconds) const;
    void StoreHeader(const std::string& line);

    bool m_validateServerCertificate = true;
    bool m_validateHostCertificate = true;
    Bytes m_requestData;
    std::size_t m_requestOffset = 0; ///< how far a PUT has read m_requestData
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
    std::size_t m_maxAnswerBytes = 0;
    std::size_t m_answerBytes = 0; ///< of this round
    bool m_answerTooLong = false;
    Pause m_pause;
};

} // namespace Http
