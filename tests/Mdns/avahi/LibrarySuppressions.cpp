/// libdbus locks a connection and its list of connections in both orders. ThreadSanitizer calls this function by name.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" __attribute__((used)) const char* __tsan_default_suppressions();
// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" const char* __tsan_default_suppressions()
{
    return "deadlock:libdbus-1.so";
}
