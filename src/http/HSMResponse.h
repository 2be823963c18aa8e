#pragma once

#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>
#include <vector>

namespace Http
{

/// Header name to value; names as they came, so that a look-up is case-sensitive.
using Headers = std::map<std::string, std::string>;
using Bytes = std::vector<std::uint8_t>;

constexpr bool IsSuccess(int httpStatus)
{
    return httpStatus >= 200 && httpStatus <= 299;
}

/// What an asynchronous request ends in. A value.
struct HSMResponse
{
    std::string url;         ///< as it was asked for
    std::string requestData; ///< the body that was sent
    std::string body;        ///< empty after a transfer failure, and where it went into a file
    Headers headers;
    int status = 0;              ///< HTTP status, 0 where none came
    std::uint32_t userValue = 0; ///< the requester's, as all of user...
    std::string userText;
    bool success = false; ///< status 200 to 299, and the body is in the file where it was to go into one
    std::uint32_t userValue2 = 0;
    std::uint32_t userValue3 = 0;
    int curlStatus = 0; ///< a CURLcode; 0 where an answer came, of whatever status
    std::string effectiveUrl;
};

std::ostream& operator<<(std::ostream& stream, const HSMResponse& response);

} // namespace Http
