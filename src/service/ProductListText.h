#pragma once

#include <string>

namespace Sonarix
{
class ProductList;
}

namespace SonarixService
{

/// Returns one line per product, then the number of products.
std::string ProductListText(const Sonarix::ProductList& list);

} // namespace SonarixService
