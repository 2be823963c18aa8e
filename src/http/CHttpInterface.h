#pragma once

#include "http/IHttpInterface.h"

#include <memory>
#include <string>

class IRunTask;
class RequestGroup;
struct HttpRequest;
struct HttpSettings;

namespace Http
{
class ISimpleURLFetcherCallback;
class SimpleURLFetcher;
struct HSMRequester;
} // namespace Http

/// Forwards each call to one request; does nothing if the request is null.
class HttpOpHandle final : public IHttpOpHandle
{
public:
    explicit HttpOpHandle(std::shared_ptr<IRunTask> task);
    int GetAttemptCount() const override;
    void Cancel() override;
    bool WasRateLimited() const override;

private:
    const std::shared_ptr<IRunTask> m_task;
};

/// The HTTP engine. Each request runs on a thread of its own, with a copy of all that it needs. The destructor neither
/// waits for requests nor ends them; an owner that must end them calls DiscardRequests() first.
class CHttpInterface final : public IHttpInterface
{
public:
    /// `defaultRetries`: no response, 502, 503 and 504 are retried after 15, 60, 240 and 960 s. `proxy` may be empty.
    CHttpInterface(bool defaultRetries, const std::string& proxy);
    ~CHttpInterface() override;
    CHttpInterface(const CHttpInterface&) = delete;
    CHttpInterface& operator=(const CHttpInterface&) = delete;

    /// Makes every exchange through `fetcher`, one request at a time (for tests); null: each request has its own.
    void InjectFetcher(std::shared_ptr<Http::SimpleURLFetcher> fetcher);

    OpHandle PostBinaryData(const std::string& url, const Http::Bytes& body, const std::string& contentType,
                            const ResponseCallback& callback, std::uint32_t userValue, const std::string& userText,
                            std::uint32_t userValue2, std::uint32_t userValue3, const Http::Headers& headers) override;
    OpHandle Post(const std::string& url, const std::string& body, const std::string& contentType,
                  const ResponseCallback& callback, std::uint32_t userValue, const std::string& userText,
                  std::uint32_t userValue2, std::uint32_t userValue3, const Http::Headers& headers) override;
    OpHandle Get(const std::string& url, const ResponseCallback& callback, std::uint32_t userValue,
                 const std::string& userText, std::uint32_t userValue2, std::uint32_t userValue3,
                 const Http::Headers& headers) override;
    OpHandle Put(const std::string& url, const std::string& body, const std::string& contentType,
                 const ResponseCallback& callback, std::uint32_t userValue, const std::string& userText,
                 std::uint32_t userValue2, std::uint32_t userValue3, const Http::Headers& headers) override;
    OpHandle Delete(const std::string& url, const std::string& contentType, const ResponseCallback& callback,
                    std::uint32_t userValue, const std::string& userText, std::uint32_t userValue2,
                    std::uint32_t userValue3, const Http::Headers& headers) override;
    OpHandle Delete(const std::string& url, const std::string& contentType, const ResponseCallback& callback,
                    std::uint32_t userValue, const std::string& userText, std::uint32_t userValue2,
                    std::uint32_t userValue3, const Http::Headers& headers,
                    const std::vector<int>& retryBackoff) override;
    OpHandle GetUrlAsFile(const std::string& url, const std::string& fileName, const ResponseCallback& callback,
                          std::uint32_t userValue, const std::string& userText, std::uint32_t userValue2,
                          std::uint32_t userValue3, const Http::Headers& headers) override;

    void SetFollowRedirects(bool follow) override;
    void SetRetries(int retries) override;
    int GetRetries() const override;
    void SetRateLimitHandling(bool handle) override;
    void SetDefaultRetryValue(unsigned seconds) override;
    void SetRetryType(int type) override;
    void DisableRetries() override;
    void EnableRetries() override;
    void SetRetryDelay(int seconds) override;
    void SetMaxRetryValue(unsigned seconds) override;
    int GetRetryDelay() const override;
    void SetReserved(int value) override;
    void Reserved() override;
    void SetTimeout(int seconds) override;
    void SetRetryBackoff(const std::vector<int>& values, bool repeat) override;
    void SetRetryStatusCodes(const std::vector<int>& values) override;
    void SetRetryOnAnyStatus(bool retry) override;
    void SetMaxResponseBytes(std::size_t bytes) override;
    void SetMaxSleepingRequests(std::size_t count) override;
    void DiscardRequests() override;

private:
    HttpRequest MakeRequest(const std::string& url, int method, const Http::Headers& headers,
                            const std::string& contentType = {}, const Http::Bytes& body = {}) const;
    OpHandle StartRequest(HttpRequest request, std::shared_ptr<Http::ISimpleURLFetcherCallback> callback);
    OpHandle StartRequest(HttpRequest request, Http::HSMRequester requester);

    const std::unique_ptr<HttpSettings> m_settings;
    const std::shared_ptr<RequestGroup> m_requests;
    std::shared_ptr<Http::SimpleURLFetcher> m_fetcher;
};
