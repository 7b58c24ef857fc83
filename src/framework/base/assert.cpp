#include "framework/base/assert.h"

#include <cstdio>
#include <cstdlib>

void QVK_Framework_AssertionFailed(const char* expression, const char* function, const char* file, std::uint32_t line) {
    std::fprintf(stderr, "Assertion failed: (%s), function %s, file %s, line %u.\n", expression, function, file, line);
    std::fflush(stderr);
    std::abort();
}
