#include "ssdp/GSSDPHandlerIF.h"

namespace SonarixService
{

const char* Name(GSSDPHandlerIF::SearchStatus status)
{
    switch (status)
    {
    case GSSDPHandlerIF::SEARCH_NOT_READY:
        return "SEARCH_NOT_READY";
    case GSSDPHandlerIF::SEARCH_READY:
        return "SEARCH_READY";
    case GSSDPHandlerIF::SEARCH_IN_PROGRESS:
        return "SEARCH_IN_PROGRESS";
    case GSSDPHandlerIF::SEARCH_COMPLETE:
        return "SEARCH_COMPLETE";
    default:
        return "(?)";
    }
}

const char* Name(GSSDPHandlerIF::ResourceStatus status)
{
    switch (status)
    {
    case GSSDPHandlerIF::RESOURCE_UNAVAILABLE:
        return "RESOURCE_UNAVAILABLE";
    case GSSDPHandlerIF::RESOURCE_AVAILABLE:
        return "RESOURCE_AVAILABLE";
    default:
        return "(?)";
    }
}

} // namespace SonarixService
