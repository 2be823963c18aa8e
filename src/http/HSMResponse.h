#pragma once

#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>
#include <vector>

namespace Http
{

/// Header name to value. Names are stored as received; look-ups are case-sensitive.
using Headers = std::map<std::string, std::string>;
using Bytes = std::vector<std::uint8_t>;

constexpr bool IsSuccess(int httpStatus)
{
    return httpStatus >= 200 && httpStatus <= 299;
}

/// The outcome of one asynchronous HTTP request.
struct HSMResponse
{
    std::string url;         ///< as requested
    std::string requestData; ///< the body that was sent
    std::string body;        ///< empty after a transfer failure, and after GetUrlAsFile()
    Headers headers;
    int status = 0;              ///< HTTP status; 0: no response
    std::uint32_t userValue = 0; ///< all user... members: passed by the requester, returned unchanged
    std::string userText;
    bool success = false; ///< status 200 to 299, and for GetUrlAsFile() the body is in the file
    std::uint32_t userValue2 = 0;
    std::uint32_t userValue3 = 0;
    int curlStatus = 0; ///< a CURLcode; 0: a response came, whatever its status
    std::string effectiveUrl;
};

std::ostream& operator<<(std::ostream& stream, const HSMResponse& response);

} // namespace Http
