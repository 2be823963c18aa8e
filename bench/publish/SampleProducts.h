#pragma once

#include "schemas/Sonarix.pb.h"

/// Products with realistic field sizes. The same number gives the same product in each run.
namespace SampleProducts
{

/// Returns the product as mDNS reports it.
Sonarix::Product Discovered(int number);

/// Returns the information that the product sends at /sonarix/info.
Sonarix::ProductInfo Described(int number);

/// One row of the table: Discovered() merged with Described(), ONLINE.
Sonarix::Product Row(int number);

Sonarix::ProductList List(int rows);

} // namespace SampleProducts
