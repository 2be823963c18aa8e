#pragma once

#include <string>

namespace Sonarix
{
class ProductList;
}

namespace SonarixService
{

/// A list for a person's eyes: a line for each product, and their number.
std::string ProductListText(const Sonarix::ProductList& list);

} // namespace SonarixService
