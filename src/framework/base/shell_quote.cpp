#include "framework/base/shell_quote.h"

bool QVK_Framework_SafeInDoubleQuotes(std::string_view text) {
    constexpr std::string_view kUnsafe("\"$`\\\n\0", 6);
    return text.find_first_of(kUnsafe) == std::string_view::npos;
}
