// Texts that go into shell commands between double quotes.
#pragma once

#include <string_view>

// Whether `text` stays a plain word between double quotes: it holds no '"', '$', '`', '\\', newline
// or NUL, the characters by which the shell would end the quotes, expand or run something, or by
// which the command text would be cut.
bool QVK_Framework_SafeInDoubleQuotes(std::string_view text);
