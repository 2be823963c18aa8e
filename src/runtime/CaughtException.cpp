#include "runtime/CaughtException.h"

#include "runtime/DPrint.h"

#include <cstdlib>
#include <cxxabi.h>
#include <exception>
#include <memory>
#include <typeinfo>

namespace
{

const DPrint s_log("Tasks");

std::string CaughtTypeName()
{
    const std::type_info* const type = abi::__cxa_current_exception_type();
    if (type == nullptr)
    {
        return "unknown type";
    }
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> name(abi::__cxa_demangle(type->name(), nullptr, nullptr, &status),
                                                           &std::free);
    return name ? name.get() : type->name();
}

} // namespace

namespace IL
{

std::string CaughtExceptionText()
{
    try
    {
        throw;
    }
    catch (const std::exception& exception)
    {
        return exception.what();
    }
    catch (...)
    {
        return "exception of type " + CaughtTypeName();
    }
}

void LogCaughtException(const std::string& taskName) noexcept
{
    try
    {
        s_log.LogError("Task \"%s\": uncaught exception: %s", taskName.c_str(), CaughtExceptionText().c_str());
    }
    catch (...) // out of memory for the text: the task must continue
    {
        s_log.LogError("Task: uncaught exception");
    }
}

} // namespace IL
