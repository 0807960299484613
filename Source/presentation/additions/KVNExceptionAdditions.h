#pragma once

#include <exception>

// The last-resort report of an exception nobody could handle.
namespace KVNExceptionAdditions {

// Writes the exception's type and message and the current call stack to
// standard error, then aborts the process. A C++ exception carries no stack of
// its own, so the stack is the one at the report, normally the handler that
// caught the exception.
[[noreturn]] void printStackTraceAndBail(const std::exception &exception);
// For catch (...): any exception, also one not derived from std::exception.
[[noreturn]] void printStackTraceAndBail(std::exception_ptr exception);

} // namespace KVNExceptionAdditions
