// printf-style formatting with Foundation's "%@" for an object's description, as the platform's
// string formatting does it. Arguments are typed, so a conversion takes what the argument holds and
// converts it as the C library would for the conversion's length modifier.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/value.h"

namespace qvk {

class FormatArg {
public:
    enum class Kind { Signed, Unsigned, Real, Text, Object, Pointer };

    template <class T>
    requires std::is_integral_v<T> FormatArg(T v) {
        if constexpr (std::is_signed_v<T>) {
            kind_ = Kind::Signed;
            int_ = static_cast<std::int64_t>(v);
        } else {
            kind_ = Kind::Unsigned;
            int_ = static_cast<std::int64_t>(static_cast<std::uint64_t>(v));
        }
    }
    FormatArg(double v) : kind_(Kind::Real), real_(v) {}
    // A null text prints as "(null)", as the C library prints it.
    FormatArg(const char* s) : kind_(Kind::Text), text_(s) {}
    FormatArg(const std::string& s) : kind_(Kind::Text), text_(s.c_str()) {}
    FormatArg(const Value& v) : kind_(Kind::Object), object_(&v) {}
    // A null object prints as "(null)", as Foundation prints nil.
    FormatArg(const Value* v) : kind_(Kind::Object), object_(v) {}
    FormatArg(std::nullptr_t) : kind_(Kind::Object), object_(nullptr) {}
    // An absent string object prints as "(null)".
    FormatArg(const std::optional<std::string>& s) : kind_(Kind::Text), text_(s ? s->c_str() : nullptr) {}
    FormatArg(const void* p) : kind_(Kind::Pointer), pointer_(p) {}

    Kind kind() const { return kind_; }
    std::int64_t integer() const { return int_; }
    double real() const { return real_; }
    const char* text() const { return text_; }
    const Value* object() const { return object_; }
    const void* pointer() const { return pointer_; }

private:
    Kind kind_;
    std::int64_t int_ = 0;
    double real_ = 0;
    const char* text_ = nullptr;
    const Value* object_ = nullptr;
    const void* pointer_ = nullptr;
};

std::string FormatArgs(std::string_view format, std::initializer_list<FormatArg> args);

template <class... Args>
std::string Format(std::string_view format, const Args&... args) {
    return FormatArgs(format, {FormatArg(args)...});
}

}  // namespace qvk
