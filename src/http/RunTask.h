#pragma once

#include "http/AsyncTaskRunner.h"
#include "http/EventWaiter.h"
#include "http/SimpleURLFetcher.h"
#include "http/SimpleURLFetcherCallback.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

/// What a handle may ask of its request, from any thread.
class IRunTask
{
public:
    virtual ~IRunTask() = default;
    virtual void Cancel() = 0;
    virtual int GetAttemptCount() const = 0;
    virtual bool WasRateLimited() const = 0;
};

/// How requests are made. A value; each request has a copy of its own.
struct HttpSettings
{
    bool followRedirects = false;
    int retries = 0;    ///< of the transfer itself
    int retryDelay = 0; ///< seconds, between those
    int rateLimitStatus = 429;
    bool rateLimitHandling = true;
    int retryType = 1; ///< 1: back-off values go through CalculateRetrySleepValue; else they stand
    bool retriesDisabled = false;
    unsigned m_DefaultRetryValue = 15; ///< seconds, where a behavior was named and no value
    unsigned m_RetryCountMax = 4;
    unsigned maxRetryValue = 43200; ///< seconds
    int timeoutSec = 30;
    bool m_RetryBackoffRepeat = false; ///< keep using the last back-off value
    bool retryOnAnyStatus = false;
    std::vector<int> backoffValues; ///< seconds
    std::vector<int> retryStatusCodes;
    std::string proxy;
    std::size_t maxAnswerBytes = 0;
    Callback<bool> onRetryWait;
};

/// One request. A value.
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

/// Asked before a request waits to be retried, and told afterwards; on the request's thread.
class IRetryGate
{
public:
    virtual ~IRetryGate() = default;
    virtual bool Enter(RunTask& task) = 0; ///< false: it shall not wait, and not be retried
    /// After an Enter() that said true. `isRetried`: may wait for a turn; else there is no more exchange.
    virtual void Leave(RunTask& task, bool isRetried) = 0;
};

/// One request on its way: the exchange, the waits before its retries, the outcome's delivery.
/// Thread: Run() is on the request's own, all else on any. Holds all that it needs; whoever started it may be gone.
class RunTask final : public Threads_Http::IRunnable, public IRunTask
{
public:
    /// `fetcher` may be null: a fetcher of its own then. One that is not belongs to this task while it runs.
    /// `gate` may be null: every wait is allowed.
    RunTask(HttpRequest request, std::shared_ptr<Http::ISimpleURLFetcherCallback> callback,
            std::shared_ptr<Http::SimpleURLFetcher> fetcher, std::shared_ptr<IRetryGate> gate);

    /// Calls the callback once, whatever is thrown before. What the callback throws is the caller's.
    void Run() override;
    void Cancel() override;
    bool WasRateLimited() const override;
    int GetAttemptCount() const override;

    /// Cancel(), and no further round of the transfer itself.
    void Abandon();
    bool IsAbandoned();

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
    bool PauseTransfer(int seconds);
    bool CheckIfRetryNeededAndSleep(const std::string& url, const Result& result, const std::string& method);
    bool HandleRetryHeaders(const Result& result, std::uint32_t& retryValue, bool& stop, int& behavior);
    std::optional<std::uint32_t> NextBackoff(int status);
    int GetRetryBehavior(const Result& result) const;
    bool ConvertToInt(const std::string& text, std::uint32_t& value) const;
    std::uint32_t CalculateRetrySleepValue(int behavior, std::uint32_t value) const;
    bool MayWait();
    bool Sleep(std::uint32_t seconds);

    const HttpRequest m_request;
    const HttpSettings& m_settings = m_request.settings;
    const std::shared_ptr<Http::ISimpleURLFetcherCallback> m_callback;
    const std::shared_ptr<Http::SimpleURLFetcher> m_fetcher;
    const std::shared_ptr<IRetryGate> m_gate;
    std::size_t m_backoffIndex = 0;
    std::atomic<int> m_attempt = 0;
    std::atomic<bool> m_rateLimited = false;
    EventWaiter m_waiter;

    std::mutex m_abandonedMutex;
    std::condition_variable m_abandonedChanged;
    bool m_abandoned = false;
};
