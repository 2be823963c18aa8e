#include "http/SimpleURLFetcher.h"

#include "runtime/DPrint.h"
#include <MfgData.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <unistd.h>
#include <utility>

#include <netdb.h>

// curl_formadd and CURLOPT_PUT are deprecated, but every libcurl version that products use has them.
#define CURL_DISABLE_DEPRECATION
#include <curl/curl.h>

namespace
{

const DPrint s_log("SimpleURLFetcher");

constexpr const char* kRefresh = "Refresh";
constexpr const char* kETag = "ETag";
constexpr const char* kMultipart = "multipart/form-data";
constexpr int kProxyRetryDelay = 5; ///< seconds

/// Runs while the process has one thread. Sets up libcurl, and makes the resolver load its libraries by one look-up.
struct LibrarySetUp
{
    LibrarySetUp()
    {
        curl_global_init(CURL_GLOBAL_ALL);
        addrinfo* found = nullptr;
        if (getaddrinfo("localhost", "80", nullptr, &found) == 0)
        {
            freeaddrinfo(found);
        }
    }
};
const LibrarySetUp s_librarySetUp;

/// Never destroyed: a request may still run while the process exits.
const Http::Headers& s_noDefaults = *new Http::Headers;               ///< for GET and DELETE
const Http::Headers& s_noExpect = *new Http::Headers{{"Expect", ""}}; ///< for POST and PUT: removes libcurl's own

Http::Headers MergeHeaders(const Http::Headers& defaults, const Http::Headers& headers)
{
    Http::Headers merged = headers;
    merged.insert(defaults.begin(), defaults.end());
    return merged;
}

void Check(CURLcode code, int line)
{
    if (code != CURLE_OK)
    {
        std::fprintf(stderr, "*** failed at %s line %d\n", "SimpleURLFetcher.cpp", line);
    }
}
#define CHECKED(call) Check((call), __LINE__)

bool IsSpace(char character)
{
    return std::isspace(static_cast<unsigned char>(character)) != 0;
}

/// Returns true for a failure that a retry cannot change.
bool IsFinal(CURLcode code)
{
    switch (code)
    {
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_FAILED_INIT:
    case CURLE_URL_MALFORMAT:
    case CURLE_NOT_BUILT_IN:
    case CURLE_OUT_OF_MEMORY:
    case CURLE_OPERATION_TIMEDOUT:
        return true;
    default:
        return false;
    }
}

std::string ValueOf(const Http::Headers& headers, const char* name)
{
    const auto found = headers.find(name);
    return found == headers.end() ? std::string() : found->second;
}

} // namespace

namespace Http
{

std::string SimpleURLFetcherResult::ETag() const
{
    return ValueOf(headers, kETag);
}

std::string SimpleURLFetcherResult::Refresh() const
{
    return ValueOf(headers, kRefresh);
}

SimpleURLFetcher::SimpleURLFetcher(const std::string& url, const std::string& proxy)
    : m_curlHandle(curl_easy_init())
{
    if (m_curlHandle == nullptr)
    {
        s_log.LogCritical("Could not create curlHandle!");
    }
    else
    {
        CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_NOSIGNAL, 1L));
        CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_SSL_VERIFYPEER, m_validateServerCertificate ? 1L : 0L));
        CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_WRITEFUNCTION, &SimpleURLFetcher::OnBody));
        CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_WRITEDATA, this));
        CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_HEADERFUNCTION, &SimpleURLFetcher::OnHeader));
        CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_HEADERDATA, this));
        // A device's URL, a redirect or the environment must not choose another protocol, credentials or a proxy.
        CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_PROTOCOLS_STR, "http,https"));
        CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_REDIR_PROTOCOLS_STR, "http,https"));
        CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_DISALLOW_USERNAME_IN_URL, 1L));
        CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_PROXY, ""));
        CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_NOPROXY, ""));
    }
    if (!url.empty())
    {
        SetURL(url);
    }
    if (!proxy.empty())
    {
        SetProxy(proxy);
    }
    m_isDevelopment = MfgData::Get("development") == "true";
}

SimpleURLFetcher::~SimpleURLFetcher()
{
    curl_easy_cleanup(m_curlHandle);
    curl_slist_free_all(m_headerList);
}

bool SimpleURLFetcher::HasHandle(const char* operation) const
{
    if (m_curlHandle == nullptr)
    {
        s_log.LogCritical("%s, m_curlHandle is NULL, returning an error", operation);
        return false;
    }
    return true;
}

bool SimpleURLFetcher::SetURL(const std::string& url)
{
    if (!HasHandle("SetURL"))
    {
        return false;
    }
    s_log.LogVerbose("SimpleURLFetcher::SetURL (%s)\n", url.c_str());
    m_url = url;
    CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_URL, m_url.c_str()));
    return true;
}

bool SimpleURLFetcher::SetProxy(const std::string& proxy)
{
    if (!HasHandle("SetProxy"))
    {
        return false;
    }
    s_log.LogVerbose("SimpleURLFetcher::SetProxy (%s)\n", proxy.c_str());
    m_proxy = proxy;
    CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_PROXY, m_proxy.c_str()));
    return true;
}

bool SimpleURLFetcher::SetValidateServerCertificate(bool validate)
{
    if (!HasHandle("SetValidateServerCertificate"))
    {
        return false;
    }
    if (validate != m_validateServerCertificate)
    {
        m_validateServerCertificate = validate;
        CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_SSL_VERIFYPEER, validate ? 1L : 0L));
    }
    return true;
}

bool SimpleURLFetcher::SetValidateHostCertificate(bool validate)
{
    if (!HasHandle("SetValidateHostCertificate"))
    {
        return false;
    }
    if (validate != m_validateHostCertificate)
    {
        m_validateHostCertificate = validate;
        CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_SSL_VERIFYHOST, validate ? 2L : 0L));
    }
    return true;
}

bool SimpleURLFetcher::SetTimeOut(float seconds)
{
    if (!HasHandle("SetTimeOut"))
    {
        return false;
    }
    // The upper limit of 2.1e9 ms (24 days) fits into a 32-bit long.
    const auto milliseconds = static_cast<long>(std::clamp(seconds * 1000.0F, 0.0F, 2.1e9F));
    if (seconds < 0 || curl_easy_setopt(m_curlHandle, CURLOPT_TIMEOUT_MS, milliseconds) != CURLE_OK)
    {
        s_log.LogCritical("SetTimeOut, curl_easy_setup error, returning an error");
        return false;
    }
    CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_CONNECTTIMEOUT_MS, milliseconds));
    return true;
}

bool SimpleURLFetcher::SetFollowRedirects(bool follow)
{
    if (!HasHandle("SetFollowRedirects"))
    {
        return false;
    }
    CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_FOLLOWLOCATION, follow ? 1L : 0L));
    return true;
}

bool SimpleURLFetcher::SetSimpleAuthentication(const std::string& user, const std::string& password)
{
    if (!HasHandle("SetSimpleAuthentication"))
    {
        return false;
    }
    m_userPassword = user + ":" + password;
    CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_USERPWD, m_userPassword.c_str()));
    m_authorization.clear();
    return true;
}

void SimpleURLFetcher::SetAuthorization(const std::string& authorization)
{
    m_authorization = authorization;
}

void SimpleURLFetcher::SetRetries(int retries)
{
    m_retries = retries;
}

void SimpleURLFetcher::SetRetryDelay(int seconds)
{
    m_retryDelay = seconds;
}

void SimpleURLFetcher::SetMaxResponseBytes(std::size_t bytes)
{
    m_maxResponseBytes = bytes;
}

void SimpleURLFetcher::SetPause(Pause pause)
{
    m_pause = std::move(pause);
}

/// Returns false if the response exceeds its size limit.
bool SimpleURLFetcher::CountResponse(std::size_t bytes)
{
    m_responseBytes += bytes;
    if (m_maxResponseBytes == 0 || m_responseBytes <= m_maxResponseBytes)
    {
        return true;
    }
    if (!m_responseTooLong)
    {
        m_responseTooLong = true;
        s_log.LogWarning("the response from '%s' is longer than %zu bytes, the rest is not read", m_url.c_str(),
                         m_maxResponseBytes);
    }
    return false;
}

// No exception may pass through libcurl. std::bad_alloc ends the transfer.

std::size_t SimpleURLFetcher::OnBody(char* data, std::size_t size, std::size_t count, void* self)
{
    auto& fetcher = *static_cast<SimpleURLFetcher*>(self);
    const std::size_t bytes = size * count;
    try
    {
        if (!fetcher.CountResponse(bytes))
        {
            return 0;
        }
        fetcher.m_responseData.insert(fetcher.m_responseData.end(), data, data + bytes);
    }
    catch (const std::exception&)
    {
        return 0;
    }
    return bytes;
}

std::size_t SimpleURLFetcher::OnHeader(char* data, std::size_t size, std::size_t count, void* self)
{
    auto& fetcher = *static_cast<SimpleURLFetcher*>(self);
    const std::size_t bytes = size * count;
    try
    {
        if (!fetcher.CountResponse(bytes))
        {
            return 0;
        }
        fetcher.StoreHeader(std::string(data, bytes));
    }
    catch (const std::exception&)
    {
        return 0;
    }
    return bytes;
}

void SimpleURLFetcher::StoreHeader(const std::string& line)
{
    if (line.starts_with("HTTP/"))
    {
        m_responseHeaders.clear(); // a further response begins, after a redirect or a 1xx
    }
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos || colon == 0)
    {
        return;
    }
    std::size_t begin = colon + 1;
    std::size_t end = line.size();
    if (begin < end && IsSpace(line[begin]))
    {
        ++begin;
    }
    while (end > begin && IsSpace(line[end - 1]))
    {
        --end;
    }
    m_responseHeaders[line.substr(0, colon)] = line.substr(begin, end - begin);
}

std::size_t SimpleURLFetcher::OnRead(char* room, std::size_t size, std::size_t count, void* self)
{
    auto& fetcher = *static_cast<SimpleURLFetcher*>(self);
    const std::size_t bytes = std::min(size * count, fetcher.m_requestData.size() - fetcher.m_requestOffset);
    std::copy_n(fetcher.m_requestData.data() + fetcher.m_requestOffset, bytes, room);
    fetcher.m_requestOffset += bytes;
    return bytes;
}

/// Rewinds the body: libcurl sends it again if, for example, the server has closed the reused connection.
int SimpleURLFetcher::OnSeek(void* self, long long offset, int origin)
{
    auto& fetcher = *static_cast<SimpleURLFetcher*>(self);
    if (origin != SEEK_SET || offset < 0 || static_cast<std::size_t>(offset) > fetcher.m_requestData.size())
    {
        return CURL_SEEKFUNC_FAIL;
    }
    fetcher.m_requestOffset = static_cast<std::size_t>(offset);
    return CURL_SEEKFUNC_OK;
}

bool SimpleURLFetcher::FixupRequestHeaders_(const std::string& contentType, const Headers& headers)
{
    if (!HasHandle("FixupRequestHeaders_"))
    {
        return false;
    }
    curl_slist* list = nullptr;
    const auto add = [&list](const std::string& line)
    {
        if (curl_slist* const longer = curl_slist_append(list, line.c_str()))
        {
            list = longer;
        }
    };
    for (const auto& [name, value] : headers)
    {
        std::string line = name;
        line += ": ";
        line += value;
        add(line);
    }
    if (!contentType.empty())
    {
        add("Content-Type: " + contentType);
    }
    if (!headers.contains("Authorization") && !m_authorization.empty())
    {
        add("Authorization: " + m_authorization);
    }
    CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_HTTPHEADER, list));
    curl_slist_free_all(m_headerList);
    m_headerList = list;
    return true;
}

SimpleURLFetcherResult SimpleURLFetcher::GET(const Headers& headers)
{
    if (!HasHandle("GET"))
    {
        return {};
    }
    m_responseData.clear();
    CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_CUSTOMREQUEST, static_cast<const char*>(nullptr)));
    CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_HTTPGET, 1L));
    CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_READFUNCTION, static_cast<curl_read_callback>(nullptr)));
    CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_UPLOAD, 0L));
    FixupRequestHeaders_("", MergeHeaders(s_noDefaults, headers));
    return DoSendREceive_();
}

SimpleURLFetcherResult SimpleURLFetcher::POST(const std::string& body, const std::string& contentType,
                                              const Headers& headers)
{
    return POST(Bytes(body.begin(), body.end()), contentType, headers);
}

SimpleURLFetcherResult SimpleURLFetcher::POST(const Bytes& body, const std::string& contentType, const Headers& headers)
{
    if (contentType == kMultipart)
    {
        return PostMultipartFormData(body, contentType, headers);
    }
    if (!HasHandle("POST"))
    {
        return {};
    }
    s_log.LogInfo("%s\n%s\n", kMultipart, contentType.c_str());
    m_responseData.clear();
    m_requestData = body;
    m_requestOffset = 0;
    const char* const data = m_requestData.empty() ? nullptr : reinterpret_cast<const char*>(m_requestData.data());
    CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_CUSTOMREQUEST, static_cast<const char*>(nullptr)));
    CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_POST, 1L));
    CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_POSTFIELDS, data));
    CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_POSTFIELDSIZE, static_cast<long>(m_requestData.size())));
    FixupRequestHeaders_(contentType, MergeHeaders(s_noExpect, headers));
    return DoSendREceive_();
}

SimpleURLFetcherResult SimpleURLFetcher::PostMultipartFormData(const Bytes& body, const std::string&,
                                                               const Headers& headers)
{
    if (!HasHandle("PostMultipartFormData"))
    {
        return {};
    }
    m_responseData.clear();
    m_requestData = body;
    m_requestOffset = 0;
    const std::string metadata = "{\"length\":" + std::to_string(body.size()) + "}";
    curl_httppost* form = nullptr;
    curl_httppost* last = nullptr;
    SimpleURLFetcherResult result;
    if (curl_formadd(&form, &last, CURLFORM_COPYNAME, "metadata", CURLFORM_COPYCONTENTS, metadata.c_str(),
                     CURLFORM_CONTENTTYPE, "application/json", CURLFORM_END) != CURL_FORMADD_OK)
    {
        s_log.LogError("POST multipart, Unable to curl_formadd for metadata");
    }
    else if (curl_formadd(&form, &last, CURLFORM_COPYNAME, "file", CURLFORM_BUFFER, "file", CURLFORM_BUFFERPTR,
                          m_requestData.data(), CURLFORM_BUFFERLENGTH, static_cast<long>(m_requestData.size()),
                          CURLFORM_CONTENTTYPE, "application/octet-stream", CURLFORM_END) != CURL_FORMADD_OK)
    {
        s_log.LogError("POST multipart, Unable to curl_formadd for file");
    }
    else
    {
        CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_CUSTOMREQUEST, static_cast<const char*>(nullptr)));
        CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_HTTPPOST, form));
        // libcurl's own Content-Type header contains the boundary.
        FixupRequestHeaders_("", MergeHeaders(s_noExpect, headers));
        result = DoSendREceive_();
        CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_HTTPPOST, static_cast<curl_httppost*>(nullptr)));
    }
    curl_formfree(form);
    return result;
}

SimpleURLFetcherResult SimpleURLFetcher::PUT(const std::string& body, const std::string& contentType,
                                             const Headers& headers)
{
    return PUT(Bytes(body.begin(), body.end()), contentType, headers);
}

SimpleURLFetcherResult SimpleURLFetcher::PUT(const Bytes& body, const std::string& contentType, const Headers& headers)
{
    if (!HasHandle("PUT"))
    {
        return {};
    }
    m_responseData.clear();
    m_requestData = body;
    m_requestOffset = 0;
    CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_CUSTOMREQUEST, static_cast<const char*>(nullptr)));
    CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_PUT, 1L));
    CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_READFUNCTION, &SimpleURLFetcher::OnRead));
    CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_READDATA, this));
    CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_SEEKFUNCTION,
                             static_cast<curl_seek_callback>([](void* self, curl_off_t offset, int origin)
                                                             { return OnSeek(self, offset, origin); })));
    CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_SEEKDATA, this));
    CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_UPLOAD, 1L));
    CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(m_requestData.size())));
    FixupRequestHeaders_(contentType, MergeHeaders(s_noExpect, headers));
    return DoSendREceive_();
}

SimpleURLFetcherResult SimpleURLFetcher::DELETE(const std::string& contentType, const Headers& headers)
{
    if (!HasHandle("DELETE"))
    {
        return {};
    }
    m_responseData.clear();
    CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_HTTPGET, 1L));
    CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_READFUNCTION, static_cast<curl_read_callback>(nullptr)));
    CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_UPLOAD, 0L));
    CHECKED(curl_easy_setopt(m_curlHandle, CURLOPT_CUSTOMREQUEST, "DELETE"));
    FixupRequestHeaders_(contentType, MergeHeaders(s_noDefaults, headers));
    return DoSendREceive_();
}

bool SimpleURLFetcher::WaitForNextRound(int seconds) const
{
    if (m_pause)
    {
        return m_pause(std::max(seconds, 0));
    }
    if (seconds > 0)
    {
        sleep(static_cast<unsigned>(seconds));
    }
    return true;
}

SimpleURLFetcherResult SimpleURLFetcher::DoSendREceive_()
{
    SimpleURLFetcherResult result;
    if (!HasHandle("DoSendREceive_"))
    {
        return result;
    }
    for (bool isFirstRound = true;; isFirstRound = false)
    {
        m_responseHeaders.clear();
        m_responseData.clear();
        m_requestOffset = 0;
        m_responseBytes = 0;
        m_responseTooLong = false;
        if (!isFirstRound)
        {
            s_log.LogTestAutomation("HTTP Retry\n");
        }
        const CURLcode code = curl_easy_perform(m_curlHandle);
        result.curlCode = code;
        if (IsFinal(code) || m_responseTooLong)
        {
            break;
        }
        if (code == CURLE_COULDNT_CONNECT && !m_proxy.empty())
        {
            s_log.LogInfo("SimpleURLFetcher: Failed to connect to the proxy, retrying connection after: %d",
                          kProxyRetryDelay);
            if (!WaitForNextRound(kProxyRetryDelay))
            {
                break;
            }
            continue;
        }
        if (code == CURLE_OK)
        {
            long status = 0;
            CHECKED(curl_easy_getinfo(m_curlHandle, CURLINFO_RESPONSE_CODE, &status));
            result.httpStatus = static_cast<int>(status);
            if (IsSuccess(result.httpStatus))
            {
                break;
            }
        }
        s_log.LogInfo("SimpleURLFetcher: retry needed, Curl %d, http %d, retries remaining %d\n", result.curlCode,
                      result.httpStatus, m_retries);
        if (m_retries == 0)
        {
            break;
        }
        if (m_retries > 0)
        {
            --m_retries;
        }
        if (!WaitForNextRound(m_retryDelay))
        {
            break;
        }
    }
    Finish(result);
    return result;
}

void SimpleURLFetcher::Finish(SimpleURLFetcherResult& result)
{
    if (result.curlCode != CURLE_OK)
    {
        s_log.LogWarning("URL Fetch ('%s') failed with CURL ErrorCode %d\n", m_url.c_str(), result.curlCode);
        return;
    }
    result.body = std::move(m_responseData);
    result.headers = std::move(m_responseHeaders);
    const char* url = nullptr;
    if (curl_easy_getinfo(m_curlHandle, CURLINFO_REDIRECT_URL, &url) == CURLE_OK && url != nullptr)
    {
        result.redirectUrl = url;
    }
    url = nullptr;
    if (curl_easy_getinfo(m_curlHandle, CURLINFO_EFFECTIVE_URL, &url) == CURLE_OK && url != nullptr)
    {
        result.effectiveUrl = url;
    }
    s_log.LogDebug("URL Fetch ('%s') succeeded with CURL HTTP Status %d\n", m_url.c_str(), result.httpStatus);
}

} // namespace Http
