#include "aggregator/AggregatorLog.h"

#include <ProtoToMarkup.h>

namespace SonarixService
{

const DPrint s_aggregatorLog("DiscoveryServiceAggregator");

std::string JsonForLog(const google::protobuf::Message& message, bool singleLine)
{
    try
    {
        return ProtoToMarkup::ToJson(message, singleLine, false, false);
    }
    catch (const ProtoToMarkup::MarkupError& failure)
    {
        return failure.what();
    }
}

} // namespace SonarixService
