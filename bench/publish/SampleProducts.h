#pragma once

#include "schemas/Sonarix.pb.h"

/// Products as they are in the field: what mDNS tells of one, what it tells of itself, and a table of them.
/// The same number gives the same product in each run.
namespace SampleProducts
{

/// As mDNS reports it.
Sonarix::Product Discovered(int number);

/// As the product answers at /sonarix/info.
Sonarix::ProductInfo Described(int number);

/// One row of the table: discovered, described, ONLINE.
Sonarix::Product Row(int number);

Sonarix::ProductList List(int rows);

} // namespace SampleProducts
