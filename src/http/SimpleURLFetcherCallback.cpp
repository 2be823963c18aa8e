#include "http/SimpleURLFetcherCallback.h"

#include "runtime/DPrint.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <fstream>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace
{

const DPrint s_log("SimpleURLFetcher");

bool HoldsAlready(const std::string& fileName, const Http::Bytes& body)
{
    std::ifstream file(fileName, std::ios::binary);
    std::array<char, 4096> block;
    std::size_t offset = 0;
    while (file)
    {
        file.read(block.data(), block.size());
        const auto bytes = static_cast<std::size_t>(file.gcount());
        if (bytes > body.size() - offset ||
            !std::equal(block.data(), block.data() + bytes, body.begin() + static_cast<std::ptrdiff_t>(offset),
                        [](char here, std::uint8_t there) { return static_cast<std::uint8_t>(here) == there; }))
        {
            return false;
        }
        offset += bytes;
    }
    return file.eof() && offset == body.size();
}

bool WriteFile(const std::string& fileName, const Http::Bytes& body)
{
    if (HoldsAlready(fileName, body))
    {
        return true;
    }
    errno = 0;
    std::ofstream stream(fileName, std::ios::binary | std::ios::trunc);
    stream.write(reinterpret_cast<const char*>(body.data()), static_cast<std::streamsize>(body.size()));
    stream.close();
    if (!stream)
    {
        s_log.LogError("write Error %d for file %s\n", errno, fileName.c_str());
        return false;
    }
    const int file = open(fileName.c_str(), O_RDONLY | O_CLOEXEC);
    const bool isOnDisk = fsync(file) == 0;
    if (!isOnDisk)
    {
        s_log.LogError("fsync Error %d for file %s\n", errno, fileName.c_str());
    }
    if (file != -1)
    {
        close(file);
    }
    return isOnDisk;
}

} // namespace

namespace Http
{

HSMSimpleURLFetcherCallback::HSMSimpleURLFetcherCallback(HSMRequester requester, std::string requestData)
    : m_requester(std::move(requester))
    , m_requestData(std::move(requestData))
{
}

HSMResponse HSMSimpleURLFetcherCallback::MakeResponse(const std::string& url,
                                                      const SimpleURLFetcherResult& result) const
{
    HSMResponse response;
    response.url = url;
    response.requestData = m_requestData;
    response.body.assign(result.body.begin(), result.body.end());
    response.headers = result.headers;
    response.status = result.httpStatus;
    response.userValue = m_requester.userValue;
    response.userText = m_requester.userText;
    response.success = IsSuccess(result.httpStatus);
    response.userValue2 = m_requester.userValue2;
    response.userValue3 = m_requester.userValue3;
    response.curlStatus = result.curlCode;
    response.effectiveUrl = result.effectiveUrl;
    return response;
}

void HSMSimpleURLFetcherCallback::Deliver(const HSMResponse& response) const
{
    m_requester.callback(response);
}

void HSMSimpleURLFetcherCallback::OnResponse(const std::string& url, const SimpleURLFetcherResult& result)
{
    Deliver(MakeResponse(url, result));
}

HSMFileFetcherCallback::HSMFileFetcherCallback(HSMRequester requester, std::string fileName)
    : HSMSimpleURLFetcherCallback(std::move(requester), {})
    , m_fileName(std::move(fileName))
{
}

void HSMFileFetcherCallback::OnResponse(const std::string& url, const SimpleURLFetcherResult& result)
{
    const bool isInFile = IsSuccess(result.httpStatus) && WriteFile(m_fileName, result.body);
    HSMResponse response = MakeResponse(url, result);
    response.success = isInFile;
    response.body.clear();
    Deliver(response);
}

} // namespace Http
