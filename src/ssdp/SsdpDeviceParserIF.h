#pragma once

#include "runtime/Callback.h"

#include <functional>
#include <memory>
#include <string>

class NotifyTargetTaskIF;

namespace Sonarix
{
class ProductInfo;
} // namespace Sonarix

namespace SonarixService
{

/// Fetches and reads device descriptions. Each ParseDevice() ends in one call of the callback that the parser was made
/// with, on its task; a call that is under way is not cancelled by the parser's end, only by that of the task.
/// Owner: SsdpDiscovery, which calls it on its task with its table's mutex held: it never calls back from inside
/// ParseDevice().
class SsdpDeviceParserIF
{
public:
    enum ParseStatus
    {
        PARSE_SUCCESS = 0,    ///< the text was well-formed XML; nothing else is promised
        PARSE_HTTP_ERROR = 1, ///< the GET failed
        PARSE_NO_DATA = 2,    ///< no location, or an empty body
        PARSE_XML_ERROR = 3,  ///< the body is no XML
    };

    virtual ~SsdpDeviceParserIF() = default;

    /// Reads the description at `location` into `info`, which comes back with the status, whatever that is.
    virtual void ParseDevice(std::string location, Sonarix::ProductInfo info) = 0;
};

/// "PARSE_SUCCESS" and so on; "(?)" for a value outside the enumeration.
const char* Name(SsdpDeviceParserIF::ParseStatus status);

using ParseCallback = Callback<SsdpDeviceParserIF::ParseStatus, Sonarix::ProductInfo>;

/// Makes the parser of one table, for the table's task. `parsed` may be called on any thread: it only posts.
using SsdpDeviceParserFactory =
    std::function<std::unique_ptr<SsdpDeviceParserIF>(NotifyTargetTaskIF* task, const ParseCallback& parsed)>;

} // namespace SonarixService
