#include "http/CHttpInterface.h"
#include "http/AsyncTaskRunner.h"
#include "http/EventWaiter.h"
#include "http/SimpleURLFetcher.h"
#include "tests/support/ForkedRun.h"
#include "tests/support/HttpServer.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDirectory.h"
#include "tests/support/Watched.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <pthread.h>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <sys/resource.h>

namespace
{

using namespace std::chrono_literals;

/// The delivered responses. Shared with the requests, whose threads may outlive a failed test.
class Responses final
{
public:
    Watched<std::vector<Http::HSMResponse>>* operator->() const
    {
        return m_watched.get();
    }

private:
    const std::shared_ptr<Watched<std::vector<Http::HSMResponse>>> m_watched =
        std::make_shared<Watched<std::vector<Http::HSMResponse>>>();
};

IHttpInterface::ResponseCallback Into(const Responses& responses)
{
    return [responses](const Http::HSMResponse& response)
    { responses->Change([&response](std::vector<Http::HSMResponse>& all) { all.push_back(response); }); };
}

IHttpInterface::OpHandle Get(CHttpInterface& http, const std::string& url, const Responses& responses)
{
    return http.Get(url, Into(responses), 0, "", 0, 0, {});
}

bool Come(const Responses& responses, std::size_t count)
{
    return responses->WaitUntil([count](const std::vector<Http::HSMResponse>& all) { return all.size() == count; });
}

std::size_t RequestThreads()
{
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task"))
    {
        std::string name;
        std::getline(std::ifstream(entry.path() / "comm"), name);
        count += name == "Async Task" ? 1 : 0;
    }
    return count;
}

/// Polls, because the kernel reports no end of a thread.
bool AllThreadsEnd()
{
    const auto limit = std::chrono::steady_clock::now() + 60s;
    while (RequestThreads() != 0 || Threads_Http::CountAsyncTasks() != 0)
    {
        if (std::chrono::steady_clock::now() > limit)
        {
            return false;
        }
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

// This test is the first one, because a new thread could reuse the stack of an ended one. Sanitizers are excluded:
// their shadow memory needs more address space than the limit allows.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST(CHttpInterface, FailedThreadCreationThrowsAndTheNextRequestWorks)
{
    const ForkedResult result = RunForked(
        []
        {
            HttpServer server([](HttpServer::Exchange& exchange) { exchange.Send(HttpServer::Answer(200)); });
            const Responses responses;
            CHttpInterface http(false, "");
            rlimit before{};
            getrlimit(RLIMIT_AS, &before);
            const rlimit none{1, before.rlim_max};
            setrlimit(RLIMIT_AS, &none);
            bool thrown = false;
            try
            {
                Get(http, server.Url("/"), responses);
            }
            catch (const std::system_error&)
            {
                thrown = true;
            }
            setrlimit(RLIMIT_AS, &before);
            const bool isClean = Threads_Http::CountAsyncTasks() == 0;
            Get(http, server.Url("/"), responses);
            return (thrown ? 0 : 1) + (isClean ? 0 : 2) + (Come(responses, 1) ? 0 : 4);
        });
    EXPECT_TRUE(result.Succeeded()) << result.HowItEnded() << result.m_output;
}
#endif

std::string ThreadName()
{
    std::array<char, 16> name{};
    pthread_getname_np(pthread_self(), name.data(), name.size());
    return name.data();
}

TEST(CHttpInterface, OperationDeliversOneRecordOnItsOwnThread)
{
    HttpServer server(
        [](HttpServer::Exchange& exchange)
        {
            exchange.Send(HttpServer::Answer(exchange.Asked().m_target == "/404" ? 404 : 200, {"X-Answer: yes"},
                                             exchange.Asked().m_method + " " + exchange.Asked().m_body));
        });
    const TempDirectory directory;
    const Responses responses;
    std::atomic<int> onOwnThread = 0;
    const auto callback = [&](const Http::HSMResponse& response)
    {
        onOwnThread += ThreadName() == "Async Task" ? 1 : 0;
        Into(responses)(response);
    };
    CHttpInterface http(false, "");
    const std::string url = server.Url("/x");
    http.Get(url, {}, 0, "", 0, 0, {}); // an empty callback
    ASSERT_TRUE(server.Requests().WaitUntil([](const auto& all) { return all.size() == 1; }));

    const std::string file = directory.Path() + "/file";
    const Http::Headers asked = {{"X-Asked", "1"}};
    const Http::Bytes bytes = {'b', 'i', 'n'};
    const std::vector<std::pair<std::string, std::function<void()>>> operations = {
        {"POST text", [&] { http.Post(url, "text", "text/plain", callback, 1, "user", 2, 3, asked); }},
        {"POST bin", [&] { http.PostBinaryData(url, bytes, "a/b", callback, 1, "user", 2, 3, {}); }},
        {"PUT text", [&] { http.Put(url, "text", "text/plain", callback, 1, "user", 2, 3, {}); }},
        {"DELETE ", [&] { http.Delete(url, "text/plain", callback, 1, "user", 2, 3, {}); }},
        {"DELETE ", [&] { http.Delete(url, "text/plain", callback, 1, "user", 2, 3, {}, {60}); }},
        {"GET ", [&] { http.Get(url, callback, 1, "user", 2, 3, asked); }},
        {"", [&] { http.GetUrlAsFile(url, file, callback, 1, "user", 2, 3, {}); }},
        {"GET ", [&] { http.Get(server.Url("/404"), callback, 1, "user", 2, 3, {}); }},
    };
    for (std::size_t i = 0; i < operations.size(); ++i)
    {
        operations[i].second();
        ASSERT_TRUE(Come(responses, i + 1));
        const Http::HSMResponse response = responses->Get().back();
        EXPECT_EQ(response.body, operations[i].first);
        EXPECT_EQ(response.requestData, i < 3 ? response.body.substr(response.body.find(' ') + 1) : "");
        EXPECT_EQ(response.url, response.effectiveUrl);
        EXPECT_EQ(response.headers.at("X-Answer"), "yes");
        EXPECT_EQ(response.success, response.status == 200);
        EXPECT_EQ(response.curlStatus, 0);
        EXPECT_EQ(response.userText + std::to_string(response.userValue) + std::to_string(response.userValue2) +
                      std::to_string(response.userValue3),
                  "user123");
    }
    EXPECT_EQ(onOwnThread, static_cast<int>(operations.size()));
    EXPECT_EQ(std::filesystem::file_size(file), 4u);
    const std::vector<HttpServer::Request> requests = server.Requests().Get();
    EXPECT_EQ(requests.at(1).m_headers.at("X-Asked") + requests.at(6).m_headers.at("X-Asked"), "11");
    EXPECT_EQ(requests.at(2).m_headers.at("Content-Type"), "a/b");
}

// One response, and its effect: delivered at once, or a sleep of a length in this range.
struct RetryCase
{
    std::string m_what;
    int m_status; ///< 0: connection refused
    std::vector<std::string> m_headers;
    unsigned m_lowest; ///< 0: no retry
    unsigned m_highest;
    std::string m_line;
    std::function<void(CHttpInterface&)> m_setUp = {};
    bool m_defaultRetries = false;
};

void ExpectRetry(const RetryCase& one)
{
    LogCapture log("6");
    HttpServer server([&one](HttpServer::Exchange& exchange)
                      { exchange.Send(HttpServer::Answer(one.m_status, one.m_headers)); });
    const std::string url =
        one.m_status == 0 ? "http://127.0.0.1:" + std::to_string(HttpServer::FreePort()) : server.Url("/");
    CHttpInterface http(one.m_defaultRetries, "");
    if (one.m_setUp)
    {
        one.m_setUp(http);
    }
    const Responses responses;
    const IHttpInterface::OpHandle handle = Get(http, url, responses);
    unsigned wait = 0;
    if (one.m_lowest != 0)
    {
        const std::string begin = "Attempt:1 retrying GET in ";
        ASSERT_TRUE(log.WaitFor(begin)) << one.m_what << log.Text();
        const std::string text = log.Text();
        wait = static_cast<unsigned>(std::stoul(text.substr(text.find(begin) + begin.size())));
        EXPECT_TRUE(responses->Get().empty());
        handle->Cancel();
    }
    ASSERT_TRUE(Come(responses, 1)) << one.m_what << log.Text();
    EXPECT_TRUE(wait >= one.m_lowest && wait <= one.m_highest) << one.m_what << ": " << wait;
    EXPECT_EQ(responses->Get().front().status, one.m_status);
    EXPECT_EQ(handle->GetAttemptCount(), one.m_lowest != 0 ? 1 : 0) << one.m_what;
    EXPECT_EQ(handle->WasRateLimited(), one.m_status == 429 && one.m_what != "limits ignored") << one.m_what;
    EXPECT_TRUE(log.Contains(one.m_line)) << one.m_what << log.Text();
}

TEST(CHttpInterface, ResponseHeadersDecideTheRetry)
{
    const std::string later = "X-Ratelimit-Reset: " + std::to_string(std::time(nullptr) + 1000);
    const std::string past = "X-Ratelimit-Reset: " + std::to_string(std::time(nullptr) - 1);
    const std::string over = "X-Ratelimit-Remaining: 0";
    const auto limitsIgnored = [](CHttpInterface& http) { http.SetRateLimitHandling(false); };
    const std::vector<RetryCase> cases = {
        {"nothing named", 503, {}, 0, 0, "CheckIfRetryNeededAndSleep: The GET request for http://127.0.0.1:"},
        {"not a retry status", 404, {"Retry-After: 10"}, 0, 0, "failed with 404"},
        {"no connection", 0, {}, 0, 0, "failed with 0"},
        {"a wait", 503, {"Retry-After: 10"}, 7, 13, "Unsupported retry behavior set, defaulting to constant"},
        {"names are exact", 503, {"retry-after: 10"}, 0, 0, "Retry-After header is not valid"},
        {"no number", 500, {"Retry-After: 10s"}, 0, 0, "String value of:10s is not a valid uint32_t"},
        {"too large a number", 500, {"Retry-After: 4294967296"}, 0, 0, "is not a valid uint32_t"},
        {"a wait of 0", 599, {"Retry-After: 0"}, 0, 0, "failed with 599"},
        {"behavior alone", 503, {"X-Retry-Behavior: constant"}, 10, 20, "m_DefaultRetryValue:15"},
        {"unknown behavior", 503, {"X-Retry-Behavior: x", "Retry-After: 10"}, 7, 13, "of:x is not a valid option"},
        {"no retry allowed", 503, {"X-Retry-Count: 0", "Retry-After: 9"}, 0, 0, "max number of retries:0 reached"},
        {"longest", 503, {"Retry-After: 4000000000"}, 30240, 56160, "exceededs limit of:43200"},
        {"retries disabled", 503, {"Retry-After: 10"}, 0, 0, "", &CHttpInterface::DisableRetries},
        {"limit, no word when", 429, {}, 0, 0, "No valid X-Ratelimit-Remaining header found"},
        {"limit over later", 429, {over, later}, 980, 1300, "Rate limit is reached"},
        {"limit over, past", 429, {over, past}, 0, 0, "is less then the current time"},
        {"Reset before Retry-After", 429, {over, later, "Retry-After: 5"}, 980, 1300, ""},
        {"never shortened", 429, {"X-Ratelimit-Remaining: 7", "Retry-After: 20"}, 20, 26, "Remaining value is:7"},
        {"behavior, no default", 429, {"X-Retry-Behavior: constant"}, 0, 0, "failed with 429"},
        {"limits ignored", 429, {"Retry-After: 10"}, 0, 0, "failed with 429", limitsIgnored},
    };
    std::for_each(cases.begin(), cases.end(), ExpectRetry);
}

TEST(CHttpInterface, BackOffTableDecidesTheRetry)
{
    const std::string exponential = "X-Retry-Behavior: exponential";
    const std::string first = "Using first back off value of:100 for exponential retry";
    const auto backOff = [](CHttpInterface& http)
    {
        http.SetRetryBackoff({100, 200}, false);
        http.SetRetryStatusCodes({503});
    };
    const auto backOffForAny = [&backOff](CHttpInterface& http)
    {
        backOff(http);
        http.SetRetryOnAnyStatus(true);
    };
    const auto backOffAsItStands = [&backOffForAny](CHttpInterface& http)
    {
        backOffForAny(http);
        http.SetRetryType(0);
    };
    const std::vector<RetryCase> cases = {
        {"default table", 0, {}, 10, 20, "check for backOff retries", {}, true},
        {"back-off", 503, {}, 70, 130, "defaulting to back off retries count of:2", backOff},
        {"not for this status", 404, {}, 0, 0, "failed with 404", backOff},
        {"for any status", 404, {}, 70, 130, "", backOffForAny},
        {"Retry-After first", 503, {"Retry-After: 10"}, 7, 13, "", backOffForAny},
        {"grows from the first", 503, {exponential}, 70, 130, first, backOffForAny},
        {"as it stands", 503, {}, 100, 100, "Ignoring X_RETRY_BEHAVIOR", backOffAsItStands},
    };
    std::for_each(cases.begin(), cases.end(), ExpectRetry);
}

// The cases run at the same time. Each sleep takes one second.
TEST(CHttpInterface, RetriesAreCountedAndSleepsFollowTheTable)
{
    LogCapture log("3");
    const std::string after = "Retry-After: 1";
    const std::map<std::string, std::vector<std::string>> headers = {
        {"/default", {after}},
        {"/endless", {after, "X-Retry-Count: -1"}},
        {"/exponential", {after, "X-Retry-Behavior: exponential", "X-Retry-Count: 2"}},
        {"/table", {}}};
    HttpServer server([&headers](HttpServer::Exchange& exchange)
                      { exchange.Send(HttpServer::Answer(503, headers.at(exchange.Asked().m_target))); });
    CHttpInterface http(false, "");
    const Responses responses;
    const IHttpInterface::OpHandle endless = Get(http, server.Url("/endless"), responses);
    const IHttpInterface::OpHandle byDefault = Get(http, server.Url("/default"), responses);
    const IHttpInterface::OpHandle exponential = Get(http, server.Url("/exponential"), responses);
    http.SetRetryStatusCodes({503});
    const IHttpInterface::OpHandle table =
        http.Delete(server.Url("/table"), "", Into(responses), 0, "", 0, 0, {}, {1, 1});
    http.SetRetryBackoff({1}, true);
    const IHttpInterface::OpHandle repeated = Get(http, server.Url("/table"), responses);
    EXPECT_TRUE(log.WaitFor("Attempt:6 retrying GET in 1 seconds on " + server.Url("/endless"), 20s)) << log.Text();
    EXPECT_TRUE(log.WaitFor("Attempt:3 retrying GET in 1 seconds on " + server.Url("/table"))) << log.Text();
    ASSERT_TRUE(Come(responses, 3)) << log.Text();
    endless->Cancel();
    repeated->Cancel();
    repeated->Cancel();
    ASSERT_TRUE(Come(responses, 5));
    EXPECT_EQ(byDefault->GetAttemptCount(), 4);
    EXPECT_EQ(exponential->GetAttemptCount(), 2);
    EXPECT_EQ(table->GetAttemptCount(), 2);
    EXPECT_TRUE(log.Contains("Using exponential retry after value of:2 for retry attempt:1")) << log.Text();
    std::map<std::string, int> asked;
    for (const HttpServer::Request& request : server.Requests().Get())
    {
        ++asked[request.m_method + request.m_target];
    }
    EXPECT_EQ(asked["GET/default"], 5);
    EXPECT_EQ(asked["GET/exponential"], 3);
    EXPECT_EQ(asked["DELETE/table"], 3);
}

/// Answers "/hold..." after LetGo(), and all other targets at once. The first response to "/...retryN" is a 503 that
/// asks for a retry after N seconds.
class HoldingServer final
{
public:
    explicit HoldingServer()
        : m_server(
              [this](HttpServer::Exchange& exchange)
              {
                  const std::string& target = exchange.Asked().m_target;
                  if (target.starts_with("/hold"))
                  {
                      const int number = static_cast<int>(exchange.Number());
                      m_free.WaitUntil([number](int free) { return number < free; }, 60s);
                  }
                  const std::size_t retry = target.find("retry");
                  const auto isSame = [&target](const HttpServer::Request& asked) { return asked.m_target == target; };
                  const std::vector<HttpServer::Request> all = m_server.Requests().Get();
                  exchange.Send(retry != std::string::npos && std::count_if(all.begin(), all.end(), isSame) == 1
                                    ? HttpServer::Answer(503, {"Retry-After: " + target.substr(retry + 5)}, target)
                                    : HttpServer::Answer(200, {}, target));
              })
    {
    }
    ~HoldingServer()
    {
        LetGo(1'000'000);
    }
    void LetGo(int requests) ///< the first `requests` exchanges
    {
        m_free.Set(requests);
    }
    bool HasBeenAsked(std::size_t times, std::chrono::milliseconds limit = 60s) const
    {
        return m_server.Requests().WaitUntil([times](const auto& all) { return all.size() == times; }, limit);
    }
    std::string Url(const std::string& target) const
    {
        return m_server.Url(target);
    }

private:
    Watched<int> m_free{0};
    HttpServer m_server;
};

std::vector<std::string> UrlsOf(const Responses& responses, std::size_t hostBytes)
{
    std::vector<std::string> urls;
    for (const Http::HSMResponse& response : responses->Get())
    {
        urls.push_back(response.url.substr(hostBytes));
    }
    return urls;
}

TEST(CHttpInterface, CancelPreventsASleepAndLetsTheTransferEnd)
{
    HoldingServer server;
    const Responses responses;
    std::optional<CHttpInterface> http(std::in_place, false, "");
    http->SetTimeout(60);
    const IHttpInterface::OpHandle handle = Get(*http, server.Url("/hold-retry3600"), responses);
    Get(*http, server.Url("/hold"), responses); // dropping the handle does not cancel the request
    ASSERT_TRUE(server.HasBeenAsked(2));
    handle->Cancel();
    http.reset(); // ends no request
    EXPECT_TRUE(responses->Get().empty());
    server.LetGo(2);
    ASSERT_TRUE(Come(responses, 2));
    for (const Http::HSMResponse& response : responses->Get())
    {
        EXPECT_EQ(server.Url(response.body), response.url) << "the last response";
    }
    EXPECT_TRUE(AllThreadsEnd());
    EXPECT_TRUE(server.HasBeenAsked(2));
}

/// Starts a request and returns when it sleeps for `seconds`.
IHttpInterface::OpHandle Sleeper(CHttpInterface& http, const HoldingServer& server, int seconds,
                                 const Responses& responses)
{
    const LogCapture log("3");
    const std::string url = server.Url("/retry" + std::to_string(seconds));
    IHttpInterface::OpHandle handle = Get(http, url, responses);
    EXPECT_TRUE(log.WaitFor("seconds on " + url)) << log.Text();
    return handle;
}

TEST(CHttpInterface, SleepingRequestsAreBounded)
{
    HoldingServer server;
    const Responses responses;
    const std::size_t host = server.Url("").size();
    CHttpInterface http(false, "");
    http.SetMaxSleepingRequests(2);
    const IHttpInterface::OpHandle first = Sleeper(http, server, 3601, responses);
    Sleeper(http, server, 3602, responses);
    {
        const LogCapture log("2");
        Get(http, server.Url("/retry3603"), responses);
        ASSERT_TRUE(Come(responses, 1));
        EXPECT_EQ(responses->Get().front().status, 503);
        EXPECT_TRUE(log.Contains("/retry3603 is not retried: 2 requests sleep before their retry already"))
            << log.Text();
    }
    Get(http, server.Url("/other"), responses); // the bound does not concern transfers
    ASSERT_TRUE(Come(responses, 2));

    first->Cancel(); // a cancelled sleep counts no longer, and neither does one that is over
    ASSERT_TRUE(Come(responses, 3));
    Sleeper(http, server, 1, responses);
    ASSERT_TRUE(Come(responses, 4));
    Sleeper(http, server, 3604, responses);
    EXPECT_THAT(UrlsOf(responses, host), testing::ElementsAre("/retry3603", "/other", "/retry3601", "/retry1"));
    EXPECT_EQ(responses->Get().back().status, 200);
    http.DiscardRequests();
    EXPECT_TRUE(AllThreadsEnd());
}

TEST(CHttpInterface, DiscardEndsSleepsAndLetsTransfersEnd)
{
    HoldingServer server;
    const Responses responses;
    CHttpInterface http(false, "");
    http.SetTimeout(60);
    Sleeper(http, server, 3600, responses);
    Get(http, server.Url("/hold-retry3600"), responses);
    ASSERT_TRUE(server.HasBeenAsked(2));
    http.DiscardRequests();
    ASSERT_TRUE(Come(responses, 1));
    server.LetGo(2);
    ASSERT_TRUE(Come(responses, 2));
    EXPECT_THAT(UrlsOf(responses, server.Url("").size()), testing::ElementsAre("/retry3600", "/hold-retry3600"));
    EXPECT_TRUE(AllThreadsEnd());
    Get(http, server.Url("/new"), responses);
    EXPECT_TRUE(Come(responses, 3));

    // Without DiscardRequests(), a request that waits for its proxy would wait without limit.
    CHttpInterface proxied(false, "http://127.0.0.1:" + std::to_string(HttpServer::FreePort()));
    const LogCapture log("3");
    Get(proxied, server.Url("/"), responses);
    ASSERT_TRUE(log.WaitFor("Failed to connect to the proxy, retrying connection after: 5"));
    proxied.DiscardRequests();
    ASSERT_TRUE(responses->WaitUntil([](const auto& all) { return all.size() == 4; }, 4s));
    EXPECT_EQ(responses->Get().back().curlStatus, 7);
    EXPECT_TRUE(AllThreadsEnd());
}

/// A fetcher that throws in every exchange.
class ThrowingFetcher final : public Http::SimpleURLFetcher
{
public:
    using SimpleURLFetcher::SimpleURLFetcher;
    Http::SimpleURLFetcherResult GET(const Http::Headers&) override
    {
        throw std::bad_alloc();
    }
};

TEST(CHttpInterface, CallbackIsCalledAfterAnExceptionInTheExchange)
{
    const LogCapture log("1");
    const Responses responses;
    CHttpInterface http(false, "");
    http.InjectFetcher(std::make_shared<ThrowingFetcher>("", ""));
    Get(http, "http://127.0.0.1/", responses);
    ASSERT_TRUE(Come(responses, 1));
    EXPECT_FALSE(responses->Get().front().success);
    EXPECT_NE(responses->Get().front().curlStatus, 0);
    EXPECT_TRUE(log.Contains("std::bad_alloc")) << log.Text();
    EXPECT_TRUE(AllThreadsEnd());
}

TEST(CHttpInterface, ManyRequestsRunAtOnceAndAreLogged)
{
    LogCapture log("2");
    HoldingServer server;
    const Responses responses;
    CHttpInterface http(false, "");
    for (int i = 0; i < 22; ++i)
    {
        Get(http, server.Url("/hold"), responses);
    }
    EXPECT_TRUE(server.HasBeenAsked(22));
    server.LetGo(22);
    EXPECT_TRUE(Come(responses, 22));
    EXPECT_TRUE(AllThreadsEnd());
    EXPECT_EQ(log.Count(DPrint::LEVEL_WARNING), 3u) << log.Text();
    EXPECT_TRUE(log.Contains("Potentially too many async tasks running: 22"));
}

// Wake() ends Wait() if it comes before Wait(), in it, or between its test of the flag and its poll().
TEST(EventWaiter, WakeIsNeverLost)
{
    EventWaiter waiter;
    EXPECT_EQ(waiter.Wait(0), EventWaiter::TIMED_OUT);
    for (int i = 0; i < 300; ++i)
    {
        Watched<bool> go(false);
        std::thread waker(
            [&]
            {
                go.WaitFor(true);
                waiter.Wake();
            });
        go.Set(true);
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(waiter.Wait(10), EventWaiter::WOKEN);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, 9s);
        waker.join();
        EXPECT_EQ(waiter.Wait(10), EventWaiter::WOKEN) << "until Reset()";
        waiter.Reset();
    }
}

} // namespace
