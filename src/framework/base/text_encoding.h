// Conversions between the program's Unicode texts (UTF-8 inside) and 8-bit encodings.
#pragma once

#include <optional>
#include <string>
#include <string_view>

bool QVK_Framework_IsUTF8(std::string_view bytes);
// ISO Latin-1 bytes read as Unicode.
std::string QVK_Framework_DecodeLatin1(std::string_view bytes);
// The text as ISO Latin-1 bytes; none when a character lies outside ISO Latin-1.
std::optional<std::string> QVK_Framework_EncodeLatin1(std::string_view text);

// The text in the platform's default 8-bit encoding (UTF-8 on Linux), owned by the string.
inline const char* QVK_Framework_UnixEncoding(const std::string& string) { return string.c_str(); }

// Keeps a text for the rest of the process and gives its NUL-terminated form.
const char* QVK_Framework_KeepText(std::string text);
