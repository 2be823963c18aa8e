#include "Heap.h"
#include "ServiceEntry.h"

/// The daemon takes no arguments, and ignores those that it gets.
int main()
{
    Heap::KeepSmall();
    return SonarixService::RunService();
}
