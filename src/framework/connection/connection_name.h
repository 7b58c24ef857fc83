// The identifier of the package's network service for a connection index.
#pragma once

#include <cstdint>
#include <string>

// The project's application name with every run of characters that an identifier can't hold
// turned into one "_" (never at the start), its byte checksum when nothing is left, then "-NDIS"
// when `ndis`, then "-<index>".
std::string QVK_Framework_ConnectionName(std::uint32_t index, bool ndis);
