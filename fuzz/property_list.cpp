// Property-list reading (XML and binary) and the description and XML writing of what it reads.
#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/property_list.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::optional<qvk::Value> value =
        qvk::platform::ParsePropertyList(std::string(reinterpret_cast<const char*>(data), size));
    if (!value) return 0;
    value->Description();
    qvk::platform::XmlPropertyList(*value);
    return 0;
}
