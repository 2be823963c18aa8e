#include "ssdp/SsdpDeviceParserIF.h"

namespace SonarixService
{

const char* Name(SsdpDeviceParserIF::ParseStatus status)
{
    switch (status)
    {
    case SsdpDeviceParserIF::PARSE_SUCCESS:
        return "PARSE_SUCCESS";
    case SsdpDeviceParserIF::PARSE_HTTP_ERROR:
        return "PARSE_HTTP_ERROR";
    case SsdpDeviceParserIF::PARSE_NO_DATA:
        return "PARSE_NO_DATA";
    case SsdpDeviceParserIF::PARSE_XML_ERROR:
        return "PARSE_XML_ERROR";
    default:
        return "(?)";
    }
}

} // namespace SonarixService
