#include "service/ServiceEntry.h"

/// The daemon ignores its arguments.
int main()
{
    return SonarixService::RunService();
}
