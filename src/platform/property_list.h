// Reading and writing property-list files (XML or binary in, XML out).
#pragma once

#include <optional>
#include <string>

#include "platform/value.h"

namespace qvk::platform {

// The file's root value; none when the file is missing or is no property list.
std::optional<Value> ReadPropertyList(const std::string& path);
std::optional<Value> ParsePropertyList(const std::string& bytes);

// The value as an XML property list.
std::string XmlPropertyList(const Value& value);

}  // namespace qvk::platform
