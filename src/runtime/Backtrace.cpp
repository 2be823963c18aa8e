#include "runtime/SystemUtils.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cxxabi.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <memory>

namespace
{

constexpr int kMaxFrames = 64;

std::string WithOffset(const std::string& name, const void* address, const void* base)
{
    char offset[32];
    std::snprintf(offset, sizeof offset, "+0x%zx",
                  static_cast<std::size_t>(static_cast<const char*>(address) - static_cast<const char*>(base)));
    return name + offset;
}

/// "Class::Function(int)+0x12 (program)", or "program+0x1234" if only the module is known.
std::string TextFromAddress(void* address)
{
    // A return address may be the first byte of the next function, so the byte before it is looked up.
    const void* const call = static_cast<const char*>(address) - 1;
    Dl_info info = {};
    if (dladdr(call, &info) == 0 || info.dli_fname == nullptr)
    {
        return {};
    }
    if (info.dli_sname == nullptr)
    {
        return WithOffset(info.dli_fname, address, info.dli_fbase);
    }
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> demangled(
        abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, &status), &std::free);
    const std::string name = demangled ? demangled.get() : info.dli_sname;
    return WithOffset(name, address, info.dli_saddr) + " (" + info.dli_fname + ')';
}

} // namespace

std::vector<std::string> backtrace()
{
    std::array<void*, kMaxFrames> frames;
    const int count = ::backtrace(frames.data(), kMaxFrames);
    std::vector<std::string> texts;
    texts.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i)
    {
        texts.push_back(TextFromAddress(frames[static_cast<std::size_t>(i)]));
    }
    return texts;
}
