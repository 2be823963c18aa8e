#pragma once

#include "http/HSMResponse.h"
#include "http/SimpleURLFetcher.h"
#include "runtime/Callback.h"

#include <cstdint>
#include <string>

namespace Http
{

/// The requester's callback, and the values that it gets back unchanged.
struct HSMRequester
{
    Callback<HSMResponse> callback; ///< may be empty
    std::uint32_t userValue = 0;
    std::string userText;
    std::uint32_t userValue2 = 0;
    std::uint32_t userValue3 = 0;
};

/// Receives the outcome of a request, on the thread that made the exchange.
class ISimpleURLFetcherCallback
{
public:
    virtual ~ISimpleURLFetcherCallback() = default;
    virtual void OnResponse(const std::string& url, const SimpleURLFetcherResult& result) = 0;
};

/// Calls the requester's callback with the outcome as an HSMResponse.
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

/// Writes the body of a 2xx response into a file first. The record's `success` says that the file holds it and is
/// flushed to the disk; its `body` is empty. A file that already holds the body is not written.
class HSMFileFetcherCallback final : public HSMSimpleURLFetcherCallback
{
public:
    HSMFileFetcherCallback(HSMRequester requester, std::string fileName);
    void OnResponse(const std::string& url, const SimpleURLFetcherResult& result) override;

private:
    const std::string m_fileName;
};

} // namespace Http
