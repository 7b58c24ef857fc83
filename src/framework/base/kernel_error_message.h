// Names an IOKit return code.
#pragma once

#include <cstdint>

// Valid until the next call on the same thread.
const char* QVK_Framework_KernelError_Message(std::int64_t code);
