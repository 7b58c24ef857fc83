#include "platform/format.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace qvk {

namespace {

// The widest field and longest precision a conversion may ask for: the longest path, more than
// any text of this program needs. Format texts may come from files a user controls, where
// "%2000000000s" would otherwise ask for gigabytes.
constexpr long long kFieldLimit = 4096;

// snprintf into a string of whatever size the result needs.
template <class T>
void Append(std::string& out, const std::string& conversion, T value) {
    char small[128];
    int n = std::snprintf(small, sizeof small, conversion.c_str(), value);
    if (n < 0) return;
    if (static_cast<std::size_t>(n) < sizeof small) {
        out.append(small, static_cast<std::size_t>(n));
        return;
    }
    std::vector<char> big(static_cast<std::size_t>(n) + 1);
    std::snprintf(big.data(), big.size(), conversion.c_str(), value);
    out.append(big.data(), static_cast<std::size_t>(n));
}

// Keeps the width the C library would take from the bits the length modifier names.
std::int64_t Narrow(std::int64_t v, std::string_view length, bool isSigned) {
    int bits = 32;
    if (length == "hh")
        bits = 8;
    else if (length == "h")
        bits = 16;
    else if (!length.empty())
        bits = 64;
    if (bits == 64) return v;
    std::uint64_t mask = (std::uint64_t{1} << bits) - 1;
    std::uint64_t u = static_cast<std::uint64_t>(v) & mask;
    if (isSigned && (u >> (bits - 1)) != 0) u |= ~mask;
    return static_cast<std::int64_t>(u);
}

std::string TextOf(const FormatArg& arg) {
    switch (arg.kind()) {
    case FormatArg::Kind::Text: return arg.text() ? arg.text() : "(null)";
    case FormatArg::Kind::Object: return arg.object() ? arg.object()->Description() : "(null)";
    default: return {};
    }
}

}  // namespace

std::string FormatArgs(std::string_view format, std::initializer_list<FormatArg> args) {
    std::string out;
    auto next = args.begin();
    auto take = [&]() -> const FormatArg* { return next == args.end() ? nullptr : &*next++; };

    for (std::size_t i = 0; i < format.size(); ++i) {
        char c = format[i];
        if (c != '%') {
            out += c;
            continue;
        }
        std::size_t start = i++;
        std::string conversion = "%";
        while (i < format.size() && std::string_view("-+ #0'").find(format[i]) != std::string_view::npos)
            conversion += format[i++];
        // Width and precision, either digits or '*' taken from the arguments.
        bool tooWide = false;
        for (int part = 0; part < 2; ++part) {
            const std::size_t partStart = conversion.size();
            if (part == 1) {
                if (i >= format.size() || format[i] != '.') break;
                conversion += format[i++];
            }
            long long field = 0;
            if (i < format.size() && format[i] == '*') {
                const FormatArg* a = take();
                field = a ? static_cast<int>(a->integer()) : 0;
                conversion += std::to_string(field);
                ++i;
                // A negative precision counts as none, as the C library takes it from an argument.
                if (part == 1 && field < 0) {
                    conversion.resize(partStart);
                    field = 0;
                }
            } else {
                while (i < format.size() && format[i] >= '0' && format[i] <= '9') {
                    field = std::min(field * 10 + (format[i] - '0'), kFieldLimit + 1);
                    conversion += format[i++];
                }
            }
            tooWide = tooWide || std::llabs(field) > kFieldLimit;
        }
        std::size_t lengthStart = i;
        while (i < format.size() && std::string_view("hlLqjzt").find(format[i]) != std::string_view::npos) ++i;
        std::string_view length = format.substr(lengthStart, i - lengthStart);
        if (i >= format.size()) {
            out.append(format.substr(start));
            break;
        }
        char conv = format[i];
        if (tooWide) {
            // Refused as text that is no conversion is, yet its argument is its own: the following
            // conversions keep theirs.
            if (std::string_view("@sdiuoxXcfFeEgGaAp").find(conv) != std::string_view::npos) take();
            out.append(format.substr(start, i - start + 1));
            continue;
        }
        switch (conv) {
        case '%': out += '%'; break;
        case '@': {
            const FormatArg* a = take();
            if (a) Append(out, conversion + "s", TextOf(*a).c_str());
            break;
        }
        case 's': {
            const FormatArg* a = take();
            if (a) Append(out, conversion + "s", TextOf(*a).c_str());
            break;
        }
        case 'd':
        case 'i':
        case 'u':
        case 'o':
        case 'x':
        case 'X':
        case 'c': {
            const FormatArg* a = take();
            if (!a) break;
            std::int64_t v = a->kind() == FormatArg::Kind::Real ? static_cast<std::int64_t>(a->real()) : a->integer();
            if (conv == 'c') {
                Append(out, conversion + "c", static_cast<int>(static_cast<unsigned char>(v)));
            } else if (conv == 'd' || conv == 'i') {
                Append(out, conversion + "lld", static_cast<long long>(Narrow(v, length, true)));
            } else {
                Append(out, conversion + "ll" + conv, static_cast<unsigned long long>(Narrow(v, length, false)));
            }
            break;
        }
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
        case 'a':
        case 'A': {
            const FormatArg* a = take();
            if (!a) break;
            double v = a->kind() == FormatArg::Kind::Real ? a->real() : static_cast<double>(a->integer());
            Append(out, conversion + conv, v);
            break;
        }
        case 'p': {
            const FormatArg* a = take();
            if (a) Append(out, conversion + "p", a->pointer());
            break;
        }
        default:
            // Not a conversion: the text stands as written.
            out.append(format.substr(start, i - start + 1));
        }
    }
    return out;
}

}  // namespace qvk
