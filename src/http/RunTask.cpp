#include "http/RunTask.h"

#include "runtime/CaughtException.h"
#include "runtime/DPrint.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <ctime>
#include <random>
#include <utility>

namespace
{

const DPrint s_log("SimpleASyncURLFetcher");

constexpr std::array<const char*, 4> kMethodNames = {"POST", "GET", "DELETE", "PUT"};
constexpr int kMaxExponent = 30;
constexpr double kJitter = 0.3; ///< a sleep varies by this share of its length
/// Maximum length of a retry header in the log: a peer may send 64 KiB in each of any number of responses.
constexpr std::size_t kMaxShownBytes = 64;

constexpr bool IsServerError(int status)
{
    return status >= 500 && status <= 599;
}

std::string HeaderOf(const Http::SimpleURLFetcherResult& result, const char* name)
{
    const auto found = result.headers.find(name);
    return found == result.headers.end() ? std::string() : found->second;
}

std::string Shown(const std::string& text)
{
    return text.size() <= kMaxShownBytes ? text : text.substr(0, kMaxShownBytes) + "...";
}

} // namespace

RunTask::RunTask(HttpRequest request, std::shared_ptr<Http::ISimpleURLFetcherCallback> callback,
                 std::shared_ptr<Http::SimpleURLFetcher> fetcher, std::shared_ptr<RequestGroup> group)
    : m_request(std::move(request))
    , m_callback(std::move(callback))
    , m_fetcher(std::move(fetcher))
    , m_group(std::move(group))
{
    m_waiter.Reset();
    m_group->Add(*this);
}

RunTask::~RunTask()
{
    m_group->Remove(*this);
}

void RunTask::Run()
{
    s_log.LogVerbose("Run(data size:%zd headers2Add size:%zd, method:%d)\n", m_request.body.size(),
                     m_request.headers.size(), static_cast<int>(m_request.method));
    std::optional<Http::SimpleURLFetcher> ownFetcher; // destroyed after the callback
    Result result;
    try
    {
        ownFetcher.emplace("", "");
        Exchange(m_fetcher ? *m_fetcher : *ownFetcher, result);
    }
    catch (...) // for example std::bad_alloc; the callback gets the last response, or an empty one
    {
        IL::LogCaughtException("Async Task");
    }
    if (m_fetcher)
    {
        m_fetcher->SetPause(nullptr);
    }
    if (static_cast<std::size_t>(m_request.method) < kMethodNames.size())
    {
        m_callback->OnResponse(m_request.url, result);
    }
}

void RunTask::Exchange(Http::SimpleURLFetcher& fetcher, Result& result)
{
    SetUp(fetcher);
    const auto method = static_cast<std::size_t>(m_request.method);
    if (method >= kMethodNames.size())
    {
        return;
    }
    const std::string name = kMethodNames[method];
    do
    {
        DPRINT(s_log, DPrint::LEVEL_VERBOSE, name << ' ' << m_request.url);
        result = Perform(fetcher);
    } while (CheckIfRetryNeededAndSleep(m_request.url, result, name));
}

void RunTask::SetUp(Http::SimpleURLFetcher& fetcher)
{
    if (!m_settings.proxy.empty())
    {
        fetcher.SetProxy(m_settings.proxy);
    }
    fetcher.SetURL(m_request.url);
    fetcher.SetRetries(m_settings.retries);
    fetcher.SetRetryDelay(m_settings.retryDelay);
    fetcher.SetTimeOut(static_cast<float>(m_settings.timeoutSec));
    if (!m_request.user.empty() || !m_request.password.empty())
    {
        fetcher.SetSimpleAuthentication(m_request.user, m_request.password);
    }
    if (m_settings.followRedirects)
    {
        fetcher.SetFollowRedirects(true);
    }
    fetcher.SetMaxResponseBytes(m_settings.maxResponseBytes);
    fetcher.SetPause([this](int seconds)
                     { return m_transferWaiter.Wait(static_cast<unsigned>(seconds)) == EventWaiter::TIMED_OUT; });
}

RunTask::Result RunTask::Perform(Http::SimpleURLFetcher& fetcher) const
{
    switch (m_request.method)
    {
    case HttpRequest::METHOD_POST:
        return fetcher.POST(m_request.body, m_request.contentType, m_request.headers);
    case HttpRequest::METHOD_GET:
        return fetcher.GET(m_request.headers);
    case HttpRequest::METHOD_DELETE:
        return fetcher.DELETE(m_request.contentType, m_request.headers);
    case HttpRequest::METHOD_PUT:
        return fetcher.PUT(m_request.body, m_request.contentType, m_request.headers);
    }
    return {};
}

void RunTask::Cancel()
{
    s_log.LogVerbose("RunTask::Cancel()\n");
    m_waiter.Wake();
}

void RunTask::Abandon()
{
    Cancel();
    m_transferWaiter.Wake();
}

bool RunTask::WasRateLimited() const
{
    return m_rateLimited;
}

int RunTask::GetAttemptCount() const
{
    return m_attempt;
}

/// Returns true if the request has slept and must be sent again.
bool RunTask::CheckIfRetryNeededAndSleep(const std::string& url, const Result& result, const std::string& method)
{
    if (Http::IsSuccess(result.httpStatus) || m_settings.retriesDisabled)
    {
        return false;
    }
    m_rateLimited = false;
    std::uint32_t retryValue = 0;
    std::uint32_t sleep = 0;
    bool stop = false;
    int behavior = UNSET;
    if (HandleRetryHeaders(result, retryValue, stop, behavior))
    {
        DPRINT(s_log, DPrint::LEVEL_VERBOSE,
               "Response retry headers were used to determine a retry value of:" << retryValue);
    }
    else if (!stop)
    {
        DPRINT(s_log, DPrint::LEVEL_VERBOSE,
               "Valid request retry headers were not found, check for backOff retries to determine retry wait value");
        if (const std::optional<std::uint32_t> backoff = NextBackoff(result.httpStatus))
        {
            if (*backoff != 0 && m_settings.retryType == 1)
            {
                std::uint32_t value = *backoff;
                if (behavior == EXPONENTIAL)
                {
                    value = static_cast<std::uint32_t>(std::max(m_settings.backoffValues.front(), 0));
                    DPRINT(s_log, DPrint::LEVEL_DEBUG,
                           "Using first back off value of:" << value << " for exponential retry");
                }
                sleep = CalculateRetrySleepValue(behavior, value);
            }
            else if (*backoff != 0)
            {
                DPRINT(s_log, DPrint::LEVEL_DEBUG,
                       "Ignoring X_RETRY_BEHAVIOR and using constant back off value of:" << *backoff);
                sleep = *backoff;
            }
        }
        else if (behavior != UNSET && !m_rateLimited)
        {
            retryValue = m_settings.m_DefaultRetryValue;
            DPRINT(s_log, DPrint::LEVEL_DEBUG, "Defaulting Retry After to m_DefaultRetryValue:" << retryValue);
        }
    }
    if (retryValue != 0)
    {
        DPRINT(s_log, DPrint::LEVEL_VERBOSE, "Using Retry-After value to calculate sleep value");
        sleep = CalculateRetrySleepValue(behavior, retryValue);
    }
    if (sleep != 0 && MaySleep())
    {
        ++m_attempt;
        DPRINT(s_log, DPrint::LEVEL_INFO,
               "Attempt:" << m_attempt << " retrying " << method << " in " << sleep << " seconds on " << url);
        return Sleep(sleep);
    }
    DPRINT(s_log, DPrint::LEVEL_ERROR,
           "The " << method << " request for " << url << " failed with " << result.httpStatus);
    return false;
}

/// Returns true if the response requests a wait, and sets `retryValue` to its seconds. Sets `stop` if the response
/// allows no further attempt.
bool RunTask::HandleRetryHeaders(const Result& result, std::uint32_t& retryValue, bool& stop, int& behavior)
{
    bool found = false;
    bool isCountLimited = true;
    if (m_settings.rateLimitHandling && result.httpStatus == m_settings.rateLimitStatus)
    {
        m_rateLimited = true;
        std::uint32_t remaining = 0;
        if (ConvertToInt(HeaderOf(result, "X-Ratelimit-Remaining"), remaining))
        {
            DPRINT(s_log, DPrint::LEVEL_VERBOSE, "X-Ratelimit-Remaining value is:" << remaining);
            if (remaining == 0)
            {
                DPRINT(s_log, DPrint::LEVEL_WARNING,
                       "Rate limit is reached for the current request, request will be retried after rate limit ends");
                std::uint32_t reset = 0;
                const std::time_t now = std::time(nullptr);
                if (!ConvertToInt(HeaderOf(result, "X-Ratelimit-Reset"), reset))
                {
                    DPRINT(s_log, DPrint::LEVEL_DEBUG,
                           "X-Ratelimit-Reset value is not valid, check for Retry-After value");
                }
                else if (static_cast<std::int64_t>(reset) > static_cast<std::int64_t>(now))
                {
                    retryValue = static_cast<std::uint32_t>(static_cast<std::int64_t>(reset) - now);
                    found = true;
                }
                else
                {
                    DPRINT(s_log, DPrint::LEVEL_ERROR,
                           "X-Ratelimit-Reset value of:" << reset << " is less then the current time of:" << now
                                                         << " check for Retry-After value");
                }
            }
            behavior = GetRetryBehavior(result);
            isCountLimited = IsServerError(result.httpStatus);
        }
        else
        {
            DPRINT(s_log, DPrint::LEVEL_DEBUG, "No valid X-Ratelimit-Remaining header found, check for X-Retry-Count");
        }
    }
    else if (!IsServerError(result.httpStatus))
    {
        return false;
    }

    if (isCountLimited)
    {
        behavior = GetRetryBehavior(result);
        if (IsRetryCountReached(HeaderOf(result, "X-Retry-Count")))
        {
            DPRINT(s_log, DPrint::LEVEL_INFO,
                   "The max number of retries:" << m_attempt << " reached, request will not be retried");
            stop = true;
            return found;
        }
    }

    if (found) // X-Ratelimit-Reset takes precedence over Retry-After
    {
        return true;
    }
    if (ConvertToInt(HeaderOf(result, "Retry-After"), retryValue))
    {
        DPRINT(s_log, DPrint::LEVEL_VERBOSE, "Retry-After header is:" << retryValue);
        return true;
    }
    DPRINT(s_log, DPrint::LEVEL_VERBOSE, "Retry-After header is not valid, defaulting to backOff retries");
    return false;
}

/// `retryCount` is the value of X-Retry-Count, empty if the response has none.
bool RunTask::IsRetryCountReached(const std::string& retryCount) const
{
    static constexpr const char* kFunction = "HandleRetryHeaders"; // the caller, which log lines name
    if (retryCount == "-1")
    {
        DPRINT_AS(s_log, DPrint::LEVEL_VERBOSE, kFunction,
                  "X-Retry-Count of -1 found, unlimted retries allowed for this request");
        DPRINT_AS(s_log, DPrint::LEVEL_VERBOSE, kFunction,
                  "Attempting the:" << m_attempt << " retry out of unlimted retries");
        return false;
    }
    std::uint32_t count = 0;
    if (ConvertToInt(retryCount, count))
    {
        DPRINT_AS(s_log, DPrint::LEVEL_VERBOSE, kFunction, "X-Retry-Count header value found:" << count);
    }
    else if (m_settings.backoffValues.empty())
    {
        count = m_settings.m_RetryCountMax;
        DPRINT_AS(s_log, DPrint::LEVEL_VERBOSE, kFunction,
                  "Retry-Count header is not valid, defaulting to m_RetryCountMax of:" << count);
    }
    else
    {
        count = static_cast<std::uint32_t>(m_settings.backoffValues.size());
        DPRINT_AS(s_log, DPrint::LEVEL_VERBOSE, kFunction,
                  "Retry-Count header is not valid, defaulting to back off retries count of:" << count);
        if (m_settings.m_RetryBackoffRepeat)
        {
            DPRINT_AS(s_log, DPrint::LEVEL_DEBUG, kFunction,
                      "m_RetryBackoffRepeat set to true, unlimted retries allowed:" << count);
            return false;
        }
    }
    if (static_cast<std::uint32_t>(m_attempt) >= count)
    {
        return true;
    }
    DPRINT_AS(s_log, DPrint::LEVEL_VERBOSE, kFunction,
              "Attempting the:" << m_attempt << " out of:" << count << " retries");
    return false;
}

/// Returns nothing if this status has no back-off, or if all values of the table are used up.
std::optional<std::uint32_t> RunTask::NextBackoff(int status)
{
    const std::vector<int>& codes = m_settings.retryStatusCodes;
    const std::vector<int>& values = m_settings.backoffValues;
    if (!m_settings.retryOnAnyStatus && std::find(codes.begin(), codes.end(), status) == codes.end())
    {
        return std::nullopt;
    }
    int value = 0;
    if (m_backoffIndex < values.size())
    {
        value = values[m_backoffIndex++];
    }
    else if (!values.empty() && m_settings.m_RetryBackoffRepeat)
    {
        value = values.back();
    }
    else
    {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(std::max(value, 0));
}

int RunTask::GetRetryBehavior(const Result& result) const
{
    const std::string text = HeaderOf(result, "X-Retry-Behavior");
    if (text.empty())
    {
        DPRINT(s_log, DPrint::LEVEL_VERBOSE, "X-Retry-Behavior header not found");
        return UNSET;
    }
    DPRINT(s_log, DPrint::LEVEL_VERBOSE, "X-Retry-Behavior header found:" << Shown(text));
    if (text == "constant")
    {
        return CONSTANT;
    }
    if (text == "exponential")
    {
        return EXPONENTIAL;
    }
    DPRINT(s_log, DPrint::LEVEL_WARNING, "X-Retry-Behavior header of:" << Shown(text) << " is not a valid option");
    return UNSET;
}

bool RunTask::ConvertToInt(const std::string& text, std::uint32_t& value) const
{
    if (text.empty())
    {
        return false;
    }
    std::uint32_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end)
    {
        DPRINT(s_log, DPrint::LEVEL_ERROR, "String value of:" << Shown(text) << " is not a valid uint32_t");
        return false;
    }
    value = number;
    DPRINT(s_log, DPrint::LEVEL_VERBOSE, "Succesfully passed string value of:'" << text << "' to:" << value);
    return true;
}

std::uint32_t RunTask::CalculateRetrySleepValue(int behavior, std::uint32_t value) const
{
    const int attempt = m_attempt;
    const std::uint32_t limit = m_settings.maxRetryValue;
    std::uint64_t seconds = value;
    if (behavior == EXPONENTIAL && attempt >= kMaxExponent)
    {
        DPRINT(s_log, DPrint::LEVEL_WARNING,
               "Retry attempt of:" << attempt
                                   << " is to high to calculate exponential retry value, setting Rety time to max of:"
                                   << limit);
        seconds = limit;
    }
    else if (behavior == EXPONENTIAL)
    {
        seconds = static_cast<std::uint64_t>(static_cast<double>(value) * std::pow(2.0, attempt));
        DPRINT(s_log, DPrint::LEVEL_INFO,
               "Using exponential retry after value of:" << seconds << " for retry attempt:" << attempt);
    }
    else if (behavior == CONSTANT)
    {
        DPRINT(s_log, DPrint::LEVEL_INFO,
               "Using constant retry after value of:" << seconds << " for retry attempt:" << attempt);
    }
    else
    {
        DPRINT(s_log, DPrint::LEVEL_INFO,
               "Unsupported retry behavior set, defaulting to constant retry after value of:"
                   << seconds << " for retry attempt:" << attempt);
    }
    if (seconds > limit)
    {
        DPRINT(s_log, DPrint::LEVEL_WARNING,
               "Retry after value of:" << seconds << " exceededs limit of:" << limit
                                       << " setting retry after to the limit");
        seconds = limit;
    }
    const auto range =
        static_cast<std::uint64_t>(std::round(static_cast<float>(static_cast<double>(seconds) * kJitter)));
    DPRINT(s_log, DPrint::LEVEL_VERBOSE, "Using a randomness factor of +-:" << range);
    // A rate-limited wait is never shortened: the retry must not come before the limit ends. The kernel's random
    // numbers are used because an unseeded generator would make all products of a network retry at the same time.
    const std::uint64_t lowest = m_rateLimited ? seconds : seconds - range;
    std::random_device random;
    const std::uint64_t wait = std::uniform_int_distribution<std::uint64_t>(lowest, seconds + range)(random);
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(wait, UINT32_MAX));
}

bool RunTask::MaySleep()
{
    if (!m_group->BeginSleep(*this, m_settings.maxSleepingRequests))
    {
        DPRINT(s_log, DPrint::LEVEL_WARNING,
               m_request.url << " is not retried: " << m_settings.maxSleepingRequests
                             << " requests sleep before their retry already");
        return false;
    }
    return true;
}

bool RunTask::Sleep(std::uint32_t seconds)
{
    const EventWaiter::Result result = m_waiter.Wait(seconds);
    m_group->EndSleep(*this);
    switch (result)
    {
    case EventWaiter::TIMED_OUT:
        DPRINT(s_log, DPrint::LEVEL_VERBOSE, "Sleep completed");
        return true;
    case EventWaiter::WOKEN:
        DPRINT(s_log, DPrint::LEVEL_DEBUG, "The request was cancelled");
        return false;
    case EventWaiter::FAILED:
        break;
    }
    DPRINT(s_log, DPrint::LEVEL_CRITICAL, "Could not set a wait event to retry request, request will be cancelled");
    return false;
}

void RequestGroup::Add(RunTask& task)
{
    const std::lock_guard lock(m_mutex);
    m_tasks.insert(&task);
}

void RequestGroup::Remove(RunTask& task)
{
    const std::lock_guard lock(m_mutex);
    m_tasks.erase(&task);
    m_sleeping.erase(&task);
}

void RequestGroup::AbandonAll()
{
    const std::lock_guard lock(m_mutex);
    for (RunTask* const task : m_tasks)
    {
        task->Abandon();
    }
}

bool RequestGroup::BeginSleep(RunTask& task, std::size_t limit)
{
    const std::lock_guard lock(m_mutex);
    if (limit != 0 && m_sleeping.size() >= limit)
    {
        return false;
    }
    m_sleeping.insert(&task);
    return true;
}

void RequestGroup::EndSleep(RunTask& task)
{
    const std::lock_guard lock(m_mutex);
    m_sleeping.erase(&task);
}
