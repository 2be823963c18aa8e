#include "service/ServiceEntry.h"

/// The daemon takes no arguments, and ignores those that it gets.
int main()
{
    return SonarixService::RunService();
}
