#pragma once

#include "http/AsyncTaskRunner.h"
#include "http/EventWaiter.h"
#include "http/SimpleURLFetcher.h"
#include "http/SimpleURLFetcherCallback.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

/// The operations of a request that its handle offers. Safe from any thread.
class IRunTask
{
public:
    virtual ~IRunTask() = default;
    virtual void Cancel() = 0;
    virtual int GetAttemptCount() const = 0;
    virtual bool WasRateLimited() const = 0;
};

/// Settings of a CHttpInterface. Each request has its own copy.
struct HttpSettings
{
    bool followRedirects = false;
    int retries = 0;    ///< of the transfer itself
    int retryDelay = 0; ///< seconds, between those
    int rateLimitStatus = 429;
    bool rateLimitHandling = true;
    int retryType = 1; ///< 1: back-off values go through CalculateRetrySleepValue; else they are used unchanged
    bool retriesDisabled = false;
    unsigned m_DefaultRetryValue = 15; ///< seconds, if the response names a behavior and no value
    unsigned m_RetryCountMax = 4;
    unsigned maxRetryValue = 43200; ///< seconds
    int timeoutSec = 30;
    bool m_RetryBackoffRepeat = false; ///< repeat the last back-off value without end
    bool retryOnAnyStatus = false;
    std::vector<int> backoffValues; ///< seconds
    std::vector<int> retryStatusCodes;
    std::string proxy;
    std::size_t maxResponseBytes = 0;
    std::size_t maxSleepingRequests = 0;
};

struct HttpRequest
{
    enum Method
    {
        METHOD_POST = 0,
        METHOD_GET = 1,
        METHOD_DELETE = 2,
        METHOD_PUT = 3,
    };

    std::string url;
    std::string user;
    std::string password;
    Method method = METHOD_GET;
    Http::Bytes body;
    std::string contentType;
    Http::Headers headers;
    HttpSettings settings;
};

class RunTask;

/// The requests of one CHttpInterface, and the bound on those that sleep before a retry. Safe from any thread.
class RequestGroup final
{
public:
    void Add(RunTask& task);
    void Remove(RunTask& task); ///< returns when no AbandonAll() uses `task`
    void AbandonAll();
    /// Returns false if `limit` requests sleep already (0: no limit).
    [[nodiscard]] bool BeginSleep(RunTask& task, std::size_t limit);
    void EndSleep(RunTask& task);

private:
    std::mutex m_mutex;
    std::set<RunTask*> m_tasks;
    std::set<RunTask*> m_sleeping;
};

/// One request: the exchange, the sleeps before its retries, and the call of the callback.
/// Thread: Run() runs on the request's own thread; all other operations are safe from any thread.
/// Owner: that thread and the handle. It needs nothing of the CHttpInterface that started it.
class RunTask final : public Threads_Http::IRunnable, public IRunTask
{
public:
    /// `fetcher` may be null: the request makes its own. An injected one is used by this request alone while it runs.
    RunTask(HttpRequest request, std::shared_ptr<Http::ISimpleURLFetcherCallback> callback,
            std::shared_ptr<Http::SimpleURLFetcher> fetcher, std::shared_ptr<RequestGroup> group);
    ~RunTask() override;
    RunTask(const RunTask&) = delete;
    RunTask& operator=(const RunTask&) = delete;

    /// Calls the callback once, also after an exception in the exchange. Passes on what the callback throws.
    void Run() override;
    void Cancel() override;
    bool WasRateLimited() const override;
    int GetAttemptCount() const override;

    /// Cancel(), and also ends the retries of the transfer itself.
    void Abandon();

private:
    enum RetryBehavior
    {
        CONSTANT = 0,
        EXPONENTIAL = 1,
        UNSET = 2,
    };
    using Result = Http::SimpleURLFetcherResult;

    void Exchange(Http::SimpleURLFetcher& fetcher, Result& result);
    void SetUp(Http::SimpleURLFetcher& fetcher);
    Result Perform(Http::SimpleURLFetcher& fetcher) const;
    bool CheckIfRetryNeededAndSleep(const std::string& url, const Result& result, const std::string& method);
    bool HandleRetryHeaders(const Result& result, std::uint32_t& retryValue, bool& stop, int& behavior);
    bool IsRetryCountReached(const std::string& retryCount) const;
    std::optional<std::uint32_t> NextBackoff(int status);
    int GetRetryBehavior(const Result& result) const;
    bool ConvertToInt(const std::string& text, std::uint32_t& value) const;
    std::uint32_t CalculateRetrySleepValue(int behavior, std::uint32_t value) const;
    bool MaySleep();
    bool Sleep(std::uint32_t seconds);

    const HttpRequest m_request;
    const HttpSettings& m_settings = m_request.settings;
    const std::shared_ptr<Http::ISimpleURLFetcherCallback> m_callback;
    const std::shared_ptr<Http::SimpleURLFetcher> m_fetcher;
    const std::shared_ptr<RequestGroup> m_group;
    std::size_t m_backoffIndex = 0;
    std::atomic<int> m_attempt = 0;
    std::atomic<bool> m_rateLimited = false;
    EventWaiter m_waiter;         ///< for the sleep before a retry
    EventWaiter m_transferWaiter; ///< for the pauses between retries of the transfer itself
};
