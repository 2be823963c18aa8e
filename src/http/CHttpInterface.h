#pragma once

#include "http/IHttpInterface.h"

#include <memory>
#include <string>

class IRunTask;
class RequestLine;
struct HttpRequest;
struct HttpSettings;

namespace Http
{
class ISimpleURLFetcherCallback;
class SimpleURLFetcher;
struct HSMRequester;
} // namespace Http

/// Forwards to its request. Without one (null) it does nothing.
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

/// The HTTP engine. Its end touches no request under way: each holds a copy of all that it needs, and is delivered.
/// An owner that wants less calls DiscardRequests() first.
class CHttpInterface final : public IHttpInterface
{
public:
    /// `defaultRetries`: no answer, 502, 503 and 504 are retried after 15, 60, 240 and 960 s. `proxy` may be empty.
    CHttpInterface(bool defaultRetries, const std::string& proxy);
    ~CHttpInterface() override;
    CHttpInterface(const CHttpInterface&) = delete;
    CHttpInterface& operator=(const CHttpInterface&) = delete;

    /// Makes every exchange through `fetcher` (a test's, for one), one request at a time; null: each its own.
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
    void SetMaxAnswerBytes(std::size_t bytes) override;
    void SetMaxRunningRequests(std::size_t count) override;
    void SetRetryWaitCallback(const Callback<bool>& callback) override;
    void DiscardRequests() override;

private:
    OpHandle StartRequest(HttpRequest request, const Http::Headers& headers,
                          std::shared_ptr<Http::ISimpleURLFetcherCallback> callback);
    HttpRequest MakeRequest(const std::string& url, int method) const;

    const std::unique_ptr<HttpSettings> m_settings;
    std::shared_ptr<Http::SimpleURLFetcher> m_fetcher;
    const std::shared_ptr<RequestLine> m_line;
    std::size_t m_maxRunningRequests = 0;
};
