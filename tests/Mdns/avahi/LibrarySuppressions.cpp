/// libdbus takes the lock of a connection and that of all connections in either order: not ours to mend.
/// ThreadSanitizer asks for this by its name.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" __attribute__((used)) const char* __tsan_default_suppressions();
// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" const char* __tsan_default_suppressions()
{
    return "deadlock:libdbus-1.so";
}
