#pragma once

#include "http/HSMResponse.h"
#include "runtime/Callback.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// The handle of one request; any thread. Dropping it does not cancel the request.
class IHttpOpHandle
{
public:
    virtual ~IHttpOpHandle() = default;
    virtual int GetAttemptCount() const = 0; ///< retries so far that waited first
    /// Ends the wait before a retry and keeps further ones from starting: the requester then gets the last response.
    /// A transfer under way runs to its end or its time-out, and a request that waits for its turn gets it.
    virtual void Cancel() = 0;
    virtual bool WasRateLimited() const = 0; ///< by the last answer that was no success
};

/// Asynchronous HTTP. An operation returns at once; the exchange runs on a thread of its own, on which `callback`
/// (which may be empty) is called exactly once, whatever became of the request. To be called on a task, pass an
/// AsyncCallback. An operation throws std::system_error where there is no thread to be had; nobody is called then.
///
/// A request that is not answered by a 2xx is retried where the answer's headers ask for it (429 and 5xx with
/// Retry-After, X-Ratelimit-..., X-Retry-Count, X-Retry-Behavior), or from the table of back-off values.
/// Setters hold for the requests that start after them, take no lock, and belong to the thread that makes requests.
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
    /// With these back-off values, in seconds, for this one call.
    virtual OpHandle Delete(const std::string& url, const std::string& contentType, const ResponseCallback& callback,
                            std::uint32_t userValue, const std::string& userText, std::uint32_t userValue2,
                            std::uint32_t userValue3, const Http::Headers& headers,
                            const std::vector<int>& retryBackoff) = 0;
    /// The body of a 2xx answer goes into `fileName`; the record's `success` says whether it is there.
    virtual OpHandle GetUrlAsFile(const std::string& url, const std::string& fileName, const ResponseCallback& callback,
                                  std::uint32_t userValue, const std::string& userText, std::uint32_t userValue2,
                                  std::uint32_t userValue3, const Http::Headers& headers) = 0;

    virtual void SetFollowRedirects(bool follow) = 0; ///< false at first
    virtual void SetRetries(int retries) = 0;         ///< of the transfer itself: 0 at first, negative for ever
    virtual int GetRetries() const = 0;
    virtual void SetRateLimitHandling(bool handle) = 0;      ///< true at first
    virtual void SetDefaultRetryValue(unsigned seconds) = 0; ///< where the answer names a behavior alone: 15 at first
    virtual void SetRetryType(int type) = 0; ///< 1, at first: back-off values grow and vary; else they stand
    virtual void DisableRetries() = 0;       ///< but for those of the transfer
    virtual void EnableRetries() = 0;
    virtual void SetRetryDelay(int seconds) = 0;         ///< of SetRetries(): 0 at first
    virtual void SetMaxRetryValue(unsigned seconds) = 0; ///< longest wait before jitter: 43200 at first
    virtual int GetRetryDelay() const = 0;
    virtual void SetReserved(int value) = 0; ///< nothing reads it
    virtual void Reserved() = 0;             ///< does nothing
    /// For connecting, and for each whole exchange: 30 s at first, 0 is no limit.
    virtual void SetTimeout(int seconds) = 0;
    /// Seconds before the first, second, ... retry; `repeat` goes on with the last one for ever. None at first.
    virtual void SetRetryBackoff(const std::vector<int>& values, bool repeat) = 0;
    virtual void SetRetryStatusCodes(const std::vector<int>& values) = 0; ///< which get back-off; 0: no answer at all
    virtual void SetRetryOnAnyStatus(bool retry) = 0;                     ///< back-off for every failure

    /// Headers and body of an answer together; one that is longer ends as a transfer failure (CURLE_WRITE_ERROR,
    /// status 0) with a level-2 line naming the URL. 0, as at first: no limit.
    virtual void SetMaxAnswerBytes(std::size_t bytes) = 0;
    /// More exchanges than this at once wait for their turn, in the order of their start, a retry before them. As many
    /// requests may wait to be retried, beside those; one more is delivered instead, with a level-2 line. 0, as at
    /// first: no limit.
    virtual void SetMaxRunningRequests(std::size_t count) = 0;
    /// `callback` is called on a request's thread: true when it begins to wait before a retry, false when that wait is
    /// over, and with that before all else of it. None at first.
    virtual void SetRetryWaitCallback(const Callback<bool>& callback) = 0;
    /// Ends this interface's requests, from any thread, without waiting: those that wait for their turn are dropped,
    /// and their requesters not called; those that wait before a retry, of any kind, deliver what they have; a
    /// transfer under way runs to its end or its time-out, and is not retried. New requests may follow.
    virtual void DiscardRequests() = 0;
};
