// The conversions between 8-bit texts and the program's Unicode texts.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "framework/base/text_encoding.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    // Any bytes read as ISO Latin-1 are valid UTF-8 and encode back to themselves.
    std::string text = QVK_Framework_DecodeLatin1(bytes);
    if (!QVK_Framework_IsUTF8(text) || QVK_Framework_EncodeLatin1(text) != std::string(bytes)) __builtin_trap();
    // Bytes that encode as ISO Latin-1 were UTF-8 and decode back to themselves.
    if (std::optional<std::string> latin1 = QVK_Framework_EncodeLatin1(bytes)) {
        if (!QVK_Framework_IsUTF8(bytes) || QVK_Framework_DecodeLatin1(*latin1) != bytes) __builtin_trap();
    }
    return 0;
}
