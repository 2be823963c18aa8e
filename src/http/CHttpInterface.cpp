#include "http/CHttpInterface.h"

#include "http/RunTask.h"
#include "http/SimpleURLFetcher.h"
#include "http/SimpleURLFetcherCallback.h"
#include "runtime/DPrint.h"

#include <utility>

namespace
{

const DPrint s_log("HttpIF");

} // namespace

HttpOpHandle::HttpOpHandle(std::shared_ptr<IRunTask> task)
    : m_task(std::move(task))
{
    s_log.LogVerbose("HttpOpHandle::HttpOpHandle");
}

int HttpOpHandle::GetAttemptCount() const
{
    return m_task ? m_task->GetAttemptCount() : 0;
}

void HttpOpHandle::Cancel()
{
    s_log.LogVerbose("HttpOpHandle::Cancel");
    if (m_task)
    {
        m_task->Cancel();
    }
}

bool HttpOpHandle::WasRateLimited() const
{
    return m_task && m_task->WasRateLimited();
}

CHttpInterface::CHttpInterface(bool defaultRetries, const std::string& proxy)
    : m_settings(std::make_unique<HttpSettings>())
    , m_requests(std::make_shared<RequestGroup>())
{
    m_settings->proxy = proxy;
    if (defaultRetries)
    {
        m_settings->retryStatusCodes = {0, 502, 503, 504};
        m_settings->backoffValues = {15, 60, 240, 960};
    }
}

CHttpInterface::~CHttpInterface() = default;

void CHttpInterface::InjectFetcher(std::shared_ptr<Http::SimpleURLFetcher> fetcher)
{
    m_fetcher = std::move(fetcher);
}

HttpRequest CHttpInterface::MakeRequest(const std::string& url, int method, const Http::Headers& headers,
                                        const std::string& contentType, const Http::Bytes& body) const
{
    HttpRequest request;
    request.url = url;
    request.method = static_cast<HttpRequest::Method>(method);
    request.body = body;
    request.contentType = contentType;
    request.headers = headers;
    request.settings = *m_settings;
    return request;
}

IHttpInterface::OpHandle CHttpInterface::StartRequest(HttpRequest request,
                                                      std::shared_ptr<Http::ISimpleURLFetcherCallback> callback)
{
    const auto task = std::make_shared<RunTask>(std::move(request), std::move(callback), m_fetcher, m_requests);
    Threads_Http::StartAsyncTask(task);
    return std::make_shared<HttpOpHandle>(task);
}

IHttpInterface::OpHandle CHttpInterface::StartRequest(HttpRequest request, Http::HSMRequester requester)
{
    auto callback = std::make_shared<Http::HSMSimpleURLFetcherCallback>(
        std::move(requester), std::string(request.body.begin(), request.body.end()));
    return StartRequest(std::move(request), std::move(callback));
}

IHttpInterface::OpHandle CHttpInterface::PostBinaryData(const std::string& url, const Http::Bytes& body,
                                                        const std::string& contentType,
                                                        const ResponseCallback& callback, std::uint32_t userValue,
                                                        const std::string& userText, std::uint32_t userValue2,
                                                        std::uint32_t userValue3, const Http::Headers& headers)
{
    s_log.LogVerbose("CHttpInterface::PostBinaryData(url:%s)\n", url.c_str());
    return StartRequest(MakeRequest(url, HttpRequest::METHOD_POST, headers, contentType, body),
                        Http::HSMRequester{callback, userValue, userText, userValue2, userValue3});
}

IHttpInterface::OpHandle CHttpInterface::Post(const std::string& url, const std::string& body,
                                              const std::string& contentType, const ResponseCallback& callback,
                                              std::uint32_t userValue, const std::string& userText,
                                              std::uint32_t userValue2, std::uint32_t userValue3,
                                              const Http::Headers& headers)
{
    s_log.LogVerbose("CHttpInterface::Post(url:%s)\n", url.c_str());
    return StartRequest(MakeRequest(url, HttpRequest::METHOD_POST, headers, contentType, {body.begin(), body.end()}),
                        Http::HSMRequester{callback, userValue, userText, userValue2, userValue3});
}

IHttpInterface::OpHandle CHttpInterface::Get(const std::string& url, const ResponseCallback& callback,
                                             std::uint32_t userValue, const std::string& userText,
                                             std::uint32_t userValue2, std::uint32_t userValue3,
                                             const Http::Headers& headers)
{
    s_log.LogVerbose("CHttpInterface::Get(url:%s)\n", url.c_str());
    return StartRequest(MakeRequest(url, HttpRequest::METHOD_GET, headers),
                        Http::HSMRequester{callback, userValue, userText, userValue2, userValue3});
}

IHttpInterface::OpHandle CHttpInterface::Put(const std::string& url, const std::string& body,
                                             const std::string& contentType, const ResponseCallback& callback,
                                             std::uint32_t userValue, const std::string& userText,
                                             std::uint32_t userValue2, std::uint32_t userValue3,
                                             const Http::Headers& headers)
{
    s_log.LogVerbose("CHttpInterface::Put(url:%s)\n", url.c_str());
    return StartRequest(MakeRequest(url, HttpRequest::METHOD_PUT, headers, contentType, {body.begin(), body.end()}),
                        Http::HSMRequester{callback, userValue, userText, userValue2, userValue3});
}

IHttpInterface::OpHandle CHttpInterface::Delete(const std::string& url, const std::string& contentType,
                                                const ResponseCallback& callback, std::uint32_t userValue,
                                                const std::string& userText, std::uint32_t userValue2,
                                                std::uint32_t userValue3, const Http::Headers& headers)
{
    s_log.LogVerbose("CHttpInterface::Delete(url:%s)\n", url.c_str());
    return StartRequest(MakeRequest(url, HttpRequest::METHOD_DELETE, headers, contentType),
                        Http::HSMRequester{callback, userValue, userText, userValue2, userValue3});
}

IHttpInterface::OpHandle CHttpInterface::Delete(const std::string& url, const std::string& contentType,
                                                const ResponseCallback& callback, std::uint32_t userValue,
                                                const std::string& userText, std::uint32_t userValue2,
                                                std::uint32_t userValue3, const Http::Headers& headers,
                                                const std::vector<int>& retryBackoff)
{
    s_log.LogVerbose("CHttpInterface::Delete(url:%s) with retryBackoff\n", url.c_str());
    HttpRequest request = MakeRequest(url, HttpRequest::METHOD_DELETE, headers, contentType);
    request.settings.backoffValues = retryBackoff;
    return StartRequest(std::move(request), Http::HSMRequester{callback, userValue, userText, userValue2, userValue3});
}

IHttpInterface::OpHandle CHttpInterface::GetUrlAsFile(const std::string& url, const std::string& fileName,
                                                      const ResponseCallback& callback, std::uint32_t userValue,
                                                      const std::string& userText, std::uint32_t userValue2,
                                                      std::uint32_t userValue3, const Http::Headers& headers)
{
    s_log.LogVerbose("CHttpInterface::GetUrlAsFile(url:%s)\n", url.c_str());
    return StartRequest(MakeRequest(url, HttpRequest::METHOD_GET, headers),
                        std::make_shared<Http::HSMFileFetcherCallback>(
                            Http::HSMRequester{callback, userValue, userText, userValue2, userValue3}, fileName));
}

void CHttpInterface::SetFollowRedirects(bool follow)
{
    m_settings->followRedirects = follow;
}

void CHttpInterface::SetRetries(int retries)
{
    m_settings->retries = retries;
}

int CHttpInterface::GetRetries() const
{
    return m_settings->retries;
}

void CHttpInterface::SetRateLimitHandling(bool handle)
{
    m_settings->rateLimitHandling = handle;
}

void CHttpInterface::SetDefaultRetryValue(unsigned seconds)
{
    m_settings->m_DefaultRetryValue = seconds;
}

void CHttpInterface::SetRetryType(int type)
{
    m_settings->retryType = type;
}

void CHttpInterface::DisableRetries()
{
    m_settings->retriesDisabled = true;
}

void CHttpInterface::EnableRetries()
{
    m_settings->retriesDisabled = false;
}

void CHttpInterface::SetRetryDelay(int seconds)
{
    m_settings->retryDelay = seconds;
}

void CHttpInterface::SetMaxRetryValue(unsigned seconds)
{
    m_settings->maxRetryValue = seconds;
}

int CHttpInterface::GetRetryDelay() const
{
    return m_settings->retryDelay;
}

void CHttpInterface::SetReserved(int) {}

void CHttpInterface::Reserved() {}

void CHttpInterface::SetTimeout(int seconds)
{
    m_settings->timeoutSec = seconds;
    if (m_fetcher)
    {
        m_fetcher->SetTimeOut(static_cast<float>(seconds));
    }
}

void CHttpInterface::SetRetryBackoff(const std::vector<int>& values, bool repeat)
{
    m_settings->backoffValues = values;
    m_settings->m_RetryBackoffRepeat = repeat;
}

void CHttpInterface::SetRetryStatusCodes(const std::vector<int>& values)
{
    m_settings->retryStatusCodes = values;
}

void CHttpInterface::SetRetryOnAnyStatus(bool retry)
{
    m_settings->retryOnAnyStatus = retry;
}

void CHttpInterface::SetMaxResponseBytes(std::size_t bytes)
{
    m_settings->maxResponseBytes = bytes;
}

void CHttpInterface::SetMaxSleepingRequests(std::size_t count)
{
    m_settings->maxSleepingRequests = count;
}

void CHttpInterface::DiscardRequests()
{
    m_requests->AbandonAll();
}
