#pragma once

#include "schemas/Sonarix.pb.h"

namespace SonarixService
{

// How two reports about one product become one record. Pure functions, safe from any thread.

/// `update` over `existing`: both protocols without duplicates, ascending; product information as below.
Sonarix::Product MergeProducts(const Sonarix::Product& existing, const Sonarix::Product& update);

/// The later report wins for each field that it sets; a field that it does not set keeps the older value.
/// Icons and services are matched one by one, `capabilities` as a whole, `children` are always those of `update`.
Sonarix::ProductInfo MergeProductInfo(const Sonarix::ProductInfo& existing, const Sonarix::ProductInfo& update);

/// One icon for each `url` and one service for each `serviceid`: the last one given, in ascending order of the key.
void ReduceIconsAndServices(Sonarix::ProductInfo& info);

} // namespace SonarixService
