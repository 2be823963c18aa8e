#pragma once

#include "http/HSMResponse.h"
#include "runtime/Callback.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// The handle of one request. Safe from any thread. Dropping it does not cancel the request.
class IHttpOpHandle
{
public:
    virtual ~IHttpOpHandle() = default;
    virtual int GetAttemptCount() const = 0; ///< sleeps before a retry that have begun
    /// Ends the sleep before a retry and prevents further ones: the callback then gets the last response. A running
    /// transfer continues to its end or its time-out.
    virtual void Cancel() = 0;
    virtual bool WasRateLimited() const = 0; ///< by the last response other than 2xx
};

/// Asynchronous HTTP. An operation returns at once. The exchange runs on a thread of its own, which calls `callback`
/// (it may be empty) exactly once, whatever the outcome. Pass an AsyncCallback to be called on a task. An operation
/// throws std::system_error if the thread cannot be created; `callback` is not called then.
///
/// A response other than 2xx leads to a sleep and a retry if its headers request that (429 and 5xx with Retry-After,
/// X-Ratelimit-..., X-Retry-Count, X-Retry-Behavior), or if the table of back-off values has an entry for it.
/// Setters apply to the requests that start later. They take no lock: call them on the thread that makes requests.
class IHttpInterface
{
public:
    using ResponseCallback = Callback<Http::HSMResponse>;
    using OpHandle = std::shared_ptr<IHttpOpHandle>;

    virtual ~IHttpInterface() = default;

    virtual OpHandle PostBinaryData(const std::string& url, const Http::Bytes& body, const std::string& contentType,
                                    const ResponseCallback& callback, std::uint32_t userValue,
                                    const std::string& userText, std::uint32_t userValue2, std::uint32_t userValue3,
                                    const Http::Headers& headers) = 0;
    virtual OpHandle Post(const std::string& url, const std::string& body, const std::string& contentType,
                          const ResponseCallback& callback, std::uint32_t userValue, const std::string& userText,
                          std::uint32_t userValue2, std::uint32_t userValue3, const Http::Headers& headers) = 0;
    virtual OpHandle Get(const std::string& url, const ResponseCallback& callback, std::uint32_t userValue,
                         const std::string& userText, std::uint32_t userValue2, std::uint32_t userValue3,
                         const Http::Headers& headers) = 0;
    virtual OpHandle Put(const std::string& url, const std::string& body, const std::string& contentType,
                         const ResponseCallback& callback, std::uint32_t userValue, const std::string& userText,
                         std::uint32_t userValue2, std::uint32_t userValue3, const Http::Headers& headers) = 0;
    virtual OpHandle Delete(const std::string& url, const std::string& contentType, const ResponseCallback& callback,
                            std::uint32_t userValue, const std::string& userText, std::uint32_t userValue2,
                            std::uint32_t userValue3, const Http::Headers& headers) = 0;
    /// `retryBackoff` replaces the back-off values, in seconds, for this request.
    virtual OpHandle Delete(const std::string& url, const std::string& contentType, const ResponseCallback& callback,
                            std::uint32_t userValue, const std::string& userText, std::uint32_t userValue2,
                            std::uint32_t userValue3, const Http::Headers& headers,
                            const std::vector<int>& retryBackoff) = 0;
    /// Writes the body of a 2xx response to `fileName`; the record's `success` is false if that fails.
    virtual OpHandle GetUrlAsFile(const std::string& url, const std::string& fileName, const ResponseCallback& callback,
                                  std::uint32_t userValue, const std::string& userText, std::uint32_t userValue2,
                                  std::uint32_t userValue3, const Http::Headers& headers) = 0;

    virtual void SetFollowRedirects(bool follow) = 0; ///< default: false
    virtual void SetRetries(int retries) = 0;         ///< of the transfer itself; default: 0; negative: no limit
    virtual int GetRetries() const = 0;
    virtual void SetRateLimitHandling(bool handle) = 0;      ///< default: true
    virtual void SetDefaultRetryValue(unsigned seconds) = 0; ///< for a response that names only a behavior; default: 15
    /// `type` 1 (default): back-off values grow and vary at random. Other types: back-off values are used unchanged.
    virtual void SetRetryType(int type) = 0;
    virtual void DisableRetries() = 0; ///< except those of the transfer itself
    virtual void EnableRetries() = 0;
    virtual void SetRetryDelay(int seconds) = 0;         ///< before each of SetRetries(); default: 0
    virtual void SetMaxRetryValue(unsigned seconds) = 0; ///< longest sleep, before its random variation; default: 43200
    virtual int GetRetryDelay() const = 0;
    virtual void SetReserved(int value) = 0; ///< unused
    virtual void Reserved() = 0;             ///< does nothing
    /// Limits connecting, and each whole exchange; default: 30 s; 0: no limit.
    virtual void SetTimeout(int seconds) = 0;
    /// Seconds before the first, second, ... retry; default: none. `repeat`: the last value is repeated without end.
    virtual void SetRetryBackoff(const std::vector<int>& values, bool repeat) = 0;
    virtual void SetRetryStatusCodes(const std::vector<int>& values) = 0; ///< statuses with back-off; 0: no response
    virtual void SetRetryOnAnyStatus(bool retry) = 0;                     ///< back-off for every status other than 2xx

    /// Limit for the headers and the body of a response together; 0, the default: no limit. A longer one ends as a
    /// transfer failure (CURLE_WRITE_ERROR, status 0) with a level-2 line that names the URL.
    virtual void SetMaxResponseBytes(std::size_t bytes) = 0;
    /// Requests that may sleep before a retry at the same time; 0, the default: no limit. A further one is not retried:
    /// its callback gets the last response, after a level-2 line.
    virtual void SetMaxSleepingRequests(std::size_t count) = 0;
    /// Cancels all requests of this interface, and also the retries of the transfer itself. Safe from any thread; does
    /// not wait for them. Every callback is still called. New requests may follow.
    virtual void DiscardRequests() = 0;
};
