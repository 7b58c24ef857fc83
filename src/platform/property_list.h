// Reading and writing property-list files (XML or binary in, XML out).
#pragma once

#include <optional>
#include <string>

#include "platform/file_read.h"
#include "platform/value.h"

namespace qvk::platform {

// The file's root value; none when the file is missing or is no property list. The file is read
// as ReadBoundedFile reads it from `place`, so at most 1 MiB.
std::optional<Value> ReadPropertyList(const std::string& path, FilePlace place = FilePlace::Anywhere);
// None also for a list that would expand past a few MiB (a binary list's shared objects count once
// per reference) or nest deeper than 128 levels. A text ends at a NUL inside it.
std::optional<Value> ParsePropertyList(const std::string& bytes);

// The value as an XML property list.
std::string XmlPropertyList(const Value& value);

}  // namespace qvk::platform
