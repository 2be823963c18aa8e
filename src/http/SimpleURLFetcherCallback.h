#pragma once

#include "http/HSMResponse.h"
#include "http/SimpleURLFetcher.h"
#include "runtime/Callback.h"

#include <cstdint>
#include <string>

namespace Http
{

/// What the requester is told about one request; its values go through as they stand.
struct HSMRequester
{
    Callback<HSMResponse> callback; ///< may be empty
    std::uint32_t userValue = 0;
    std::string userText;
    std::uint32_t userValue2 = 0;
    std::uint32_t userValue3 = 0;
};

/// Who takes the outcome of a request, on the thread that made the exchange.
class ISimpleURLFetcherCallback
{
public:
    virtual ~ISimpleURLFetcherCallback() = default;
    virtual void OnResponse(const std::string& url, const SimpleURLFetcherResult& result) = 0;
};

/// Turns the outcome into a record and calls the requester with it.
class HSMSimpleURLFetcherCallback : public ISimpleURLFetcherCallback
{
public:
    HSMSimpleURLFetcherCallback(HSMRequester requester, std::string requestData);
    void OnResponse(const std::string& url, const SimpleURLFetcherResult& result) override;

protected:
    HSMResponse MakeResponse(const std::string& url, const SimpleURLFetcherResult& result) const;
    void Deliver(const HSMResponse& response) const;

private:
    const HSMRequester m_requester;
    const std::string m_requestData;
};

/// Puts the body of a 2xx answer into a file first: the record's `success` is whether it is there, on the disk, and
/// its `body` is empty. A file that holds the body already is left alone.
class HSMFileFetcherCallback final : public HSMSimpleURLFetcherCallback
{
public:
    HSMFileFetcherCallback(HSMRequester requester, std::string fileName);
    void OnResponse(const std::string& url, const SimpleURLFetcherResult& result) override;

private:
    const std::string m_fileName;
};

} // namespace Http
