#include "platform/value.h"

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace qvk {

namespace {

const Value kNull;

void Indent(std::string& out, int level) { out.append(static_cast<std::size_t>(level) * 4, ' '); }

// Foundation leaves a string bare only when it is plain alphanumeric ASCII; anything else is
// quoted, with quotes, backslashes and control characters escaped and non-ASCII as \Uxxxx.
void DescribeString(std::string& out, const std::string& s) {
    bool bare = !s.empty();
    for (unsigned char c : s) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'))) {
            bare = false;
            break;
        }
    }
    if (bare) {
        out += s;
        return;
    }
    out += '"';
    for (std::size_t i = 0; i < s.size();) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        if (c < 0x80) {
            switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\t': out += "\\t"; break;
            case '\r': out += "\\r"; break;
            default: out += static_cast<char>(c);
            }
            ++i;
            continue;
        }
        // Decode one UTF-8 sequence; a stray byte is shown as the Latin-1 character it would be.
        std::uint32_t cp = c;
        std::size_t len = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC0 ? 2 : 1;
        if (len > 1 && i + len <= s.size()) {
            cp = c & (0x3F >> (len - 1));
            for (std::size_t k = 1; k < len; ++k) cp = (cp << 6) | (static_cast<unsigned char>(s[i + k]) & 0x3F);
        } else {
            len = 1;
        }
        char buf[16];
        if (cp > 0xFFFF) {
            std::uint32_t v = cp - 0x10000;
            std::snprintf(buf, sizeof buf, "\\U%04x\\U%04x", 0xD800 + (v >> 10), 0xDC00 + (v & 0x3FF));
        } else {
            std::snprintf(buf, sizeof buf, "\\U%04x", cp);
        }
        out += buf;
        i += len;
    }
    out += '"';
}

std::string DescribeReal(double d) {
    char buf[40];
    for (int precision = 15; precision <= 17; ++precision) {
        std::snprintf(buf, sizeof buf, "%.*g", precision, d);
        if (std::strtod(buf, nullptr) == d) break;
    }
    return buf;
}

std::string DescribeDate(const Date& date) {
    std::time_t t = static_cast<std::time_t>(std::floor(date.seconds));
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[40];
    std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S +0000", &tm);
    return buf;
}

}  // namespace

bool Set::Contains(const Value& v) const {
    for (const Value& m : members)
        if (m == v) return true;
    return false;
}

void Set::Add(Value v) {
    if (!Contains(v)) members.push_back(std::move(v));
}

bool Set::operator==(const Set& other) const {
    if (members.size() != other.members.size()) return false;
    for (const Value& m : members)
        if (!other.Contains(m)) return false;
    return true;
}

bool Value::IsNumber() const {
    return std::holds_alternative<bool>(storage_) || std::holds_alternative<std::int64_t>(storage_) ||
           std::holds_alternative<double>(storage_);
}

bool Value::GetInteger(std::int64_t& out) const {
    if (auto b = std::get_if<bool>(&storage_)) {
        out = *b ? 1 : 0;
    } else if (auto i = std::get_if<std::int64_t>(&storage_)) {
        out = *i;
    } else if (auto d = std::get_if<double>(&storage_)) {
        // Truncated toward zero; NaN counts as 0 and values beyond the range stop at its ends.
        if (std::isnan(*d))
            out = 0;
        else if (*d >= 9223372036854775807.0)
            out = INT64_MAX;
        else if (*d <= -9223372036854775808.0)
            out = INT64_MIN;
        else
            out = static_cast<std::int64_t>(*d);
    } else {
        return false;
    }
    return true;
}

const Value& Value::operator[](const std::string& key) const {
    if (auto dict = AsDictionary()) {
        auto it = dict->find(key);
        if (it != dict->end()) return it->second;
    }
    return kNull;
}

std::string Value::Description() const {
    if (auto s = AsString()) return *s;
    std::string out;
    Describe(out, 0);
    return out;
}

void Value::Describe(std::string& out, int level) const {
    struct Visitor {
        std::string& out;
        int level;
        void operator()(std::monostate) const { out += "(null)"; }
        void operator()(bool b) const { out += b ? "1" : "0"; }
        void operator()(std::int64_t i) const { out += std::to_string(i); }
        void operator()(double d) const { out += DescribeReal(d); }
        void operator()(const std::string& s) const { DescribeString(out, s); }
        void operator()(const Date& d) const { out += DescribeDate(d); }
        void operator()(const Data& d) const {
            out += '<';
            for (std::size_t i = 0; i < d.bytes.size(); ++i) {
                char buf[4];
                std::snprintf(buf, sizeof buf, "%02x", d.bytes[i]);
                if (i > 0 && i % 4 == 0) out += ' ';
                out += buf;
            }
            out += '>';
        }
        void operator()(const Array& a) const { Elements(a, "(", ")"); }
        void operator()(const Set& s) const { Elements(s.members, "{(", ")}"); }
        void operator()(const Dictionary& d) const {
            // A nested container starts on its key's line, indented to its own level.
            Indent(out, level);
            out += "{\n";
            for (const auto& [key, value] : d) {
                Indent(out, level + 1);
                DescribeString(out, key);
                out += " = ";
                value.Describe(out, level + 1);
                out += ";\n";
            }
            Indent(out, level);
            out += '}';
        }
        void Elements(const std::vector<Value>& items, const char* open, const char* close) const {
            Indent(out, level);
            out += open;
            out += '\n';
            for (std::size_t i = 0; i < items.size(); ++i) {
                Indent(out, level + 1);
                items[i].Describe(out, level + 1);
                out += i + 1 < items.size() ? ",\n" : "\n";
            }
            Indent(out, level);
            out += close;
        }
    };
    std::visit(Visitor{out, level}, storage_);
}

}  // namespace qvk
