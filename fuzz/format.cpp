// The format function over any format text, with an argument of each kind.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/format.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const qvk::Value object(
        qvk::Dictionary{{"Vendor", qvk::Value(0x1a2b)},
                        {"Names", qvk::Value(qvk::Array{qvk::Value("Tarn \xc3\xa9"), qvk::Value(2.5)})}});
    std::string_view format(reinterpret_cast<const char*>(data), size);
    std::string out = qvk::Format(format, 7, std::int64_t{-536870208}, 2.25, "text", object, nullptr,
                                  static_cast<const char*>(nullptr), 'c', static_cast<const void*>(data));
    // Each conversion is bounded: the arguments and a field of at most 4096 characters each.
    constexpr std::size_t kArguments = 9, kLongestArgument = 128, kField = 4096;
    if (out.size() > size + kArguments * (kLongestArgument + kField)) __builtin_trap();
    return 0;
}
