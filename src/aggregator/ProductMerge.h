#pragma once

#include "schemas/Sonarix.pb.h"

namespace SonarixService
{

// Merging of two reports about one product. Pure functions, safe from any thread.

/// Merges `update` into a copy of `existing`. `protocols` holds each protocol once, in ascending order.
Sonarix::Product MergeProducts(const Sonarix::Product& existing, const Sonarix::Product& update);

/// A field that `update` sets wins; a field that it does not set keeps the older value. Icons and services are merged
/// element by element, `capabilities` is replaced as a whole if `update` has it, `children` are always those of
/// `update`.
Sonarix::ProductInfo MergeProductInfo(const Sonarix::ProductInfo& existing, const Sonarix::ProductInfo& update);

/// Keeps the last icon of each `url` and the last service of each `serviceid`, in ascending order of that key.
void ReduceIconsAndServices(Sonarix::ProductInfo& info);

/// Sets the IP address of `to` to that of `from`, or clears it if `from` has none.
void CopyAddress(const Sonarix::ProductInfo& from, Sonarix::ProductInfo& to);

} // namespace SonarixService
