#include "KVNExceptionAdditions.h"

#include <cstdio>
#include <cstdlib>
#include <cxxabi.h>
#include <execinfo.h>
#include <string>
#include <typeinfo>
#include <unistd.h>

namespace {

void writeAll(const std::string &text)
{
    const char *data = text.data();
    size_t left = text.size();
    while (left > 0) {
        const ssize_t written = ::write(STDERR_FILENO, data, left);
        if (written <= 0)
            return;
        data += written;
        left -= size_t(written);
    }
}

std::string demangled(const char *name)
{
    int status = 0;
    char *readable = abi::__cxa_demangle(name, nullptr, nullptr, &status);
    std::string result = (status == 0 && readable) ? readable : name;
    std::free(readable);
    return result;
}

[[noreturn]] void reportAndAbort(const std::string &type, const char *reason)
{
    // Whatever the program already printed comes before the report.
    std::fflush(nullptr);
    writeAll("*** Terminating on an unhandled exception '" + type + "', reason: '" + (reason ? reason : "") +
             "'\n*** Call stack at the report:\n");
    void *frames[128];
    const int count = ::backtrace(frames, 128);
    // Writes straight to the descriptor, without allocating.
    ::backtrace_symbols_fd(frames, count, STDERR_FILENO);
    std::abort();
}

} // namespace

namespace KVNExceptionAdditions {

void printStackTraceAndBail(const std::exception &exception)
{
    reportAndAbort(demangled(typeid(exception).name()), exception.what());
}

void printStackTraceAndBail(std::exception_ptr exception)
{
    if (!exception)
        reportAndAbort("(none)", "no exception");
    try {
        std::rethrow_exception(exception);
    } catch (const std::exception &caught) {
        printStackTraceAndBail(caught);
    } catch (...) {
        const std::type_info *type = abi::__cxa_current_exception_type();
        reportAndAbort(type ? demangled(type->name()) : "unknown", "not a std::exception");
    }
}

} // namespace KVNExceptionAdditions
