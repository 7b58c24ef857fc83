// The design's assertions: a failed one names the expression, function, source and line, then
// ends the process.
#pragma once

#include <cstdint>

[[noreturn]] void QVK_Framework_AssertionFailed(const char* expression, const char* function, const char* file,
                                                std::uint32_t line);

inline void QVK_Framework_Assert(bool holds, const char* expression, const char* function, const char* file,
                                 std::uint32_t line) {
    if (!holds) QVK_Framework_AssertionFailed(expression, function, file, line);
}
