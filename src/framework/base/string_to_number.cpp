#include "framework/base/string_to_number.h"

#include <cstdlib>

#include "framework/base/assert.h"

qvk::Value QVK_Framework_StringToNumber(const qvk::Value& value) {
    const std::string* text = value.AsString();
    if (!text) return value;
    char* End = nullptr;
    long number = std::strtol(text->c_str(), &End, 0);
    QVK_Framework_Assert(*End == '\0', "*End=='\\0'", "QVK_Framework_StringToNumber", "StringToNumber", 22);
    return qvk::Value(static_cast<std::int64_t>(number));
}
