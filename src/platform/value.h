// A property-list value: what the Mac's object types (strings, numbers, dates, data, arrays,
// dictionaries, sets) hold, as one value type. Its description is what "%@" prints.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <variant>
#include <vector>

namespace qvk {

class Value;

using Array = std::vector<Value>;
using Dictionary = std::map<std::string, Value>;

// Seconds since 1970-01-01 00:00:00 UTC.
struct Date {
    double seconds = 0;
    bool operator==(const Date&) const = default;
};

struct Data {
    std::vector<std::uint8_t> bytes;
    bool operator==(const Data&) const = default;
};

// Distinct values in insertion order; printed as "{( ... )}".
struct Set {
    std::vector<Value> members;
    bool Contains(const Value& v) const;
    void Add(Value v);
    bool operator==(const Set&) const;
};

class Value {
public:
    using Storage =
        std::variant<std::monostate, bool, std::int64_t, double, std::string, Data, Date, Array, Dictionary, Set>;

    Value() = default;
    Value(bool b) : storage_(b) {}
    Value(int i) : storage_(std::int64_t{i}) {}
    Value(std::int64_t i) : storage_(i) {}
    Value(double d) : storage_(d) {}
    Value(const char* s) : storage_(std::string(s)) {}
    Value(std::string s) : storage_(std::move(s)) {}
    Value(Data d) : storage_(std::move(d)) {}
    Value(Date d) : storage_(d) {}
    Value(Array a) : storage_(std::move(a)) {}
    Value(Dictionary d) : storage_(std::move(d)) {}
    Value(Set s) : storage_(std::move(s)) {}

    bool IsNull() const { return std::holds_alternative<std::monostate>(storage_); }
    bool IsString() const { return std::holds_alternative<std::string>(storage_); }
    bool IsNumber() const;
    bool IsArray() const { return std::holds_alternative<Array>(storage_); }
    bool IsDictionary() const { return std::holds_alternative<Dictionary>(storage_); }

    const std::string* AsString() const { return std::get_if<std::string>(&storage_); }
    const Array* AsArray() const { return std::get_if<Array>(&storage_); }
    const Dictionary* AsDictionary() const { return std::get_if<Dictionary>(&storage_); }
    Dictionary* AsDictionary() { return std::get_if<Dictionary>(&storage_); }
    // The 64-bit integer of a number (booleans count as 0 and 1, reals are truncated); none otherwise.
    bool GetInteger(std::int64_t& out) const;

    // The dictionary's value for `key`; a null value when absent or when this is no dictionary.
    const Value& operator[](const std::string& key) const;

    // Foundation's description: a string prints as itself, containers one element per line.
    std::string Description() const;

    const Storage& storage() const { return storage_; }
    bool operator==(const Value&) const = default;

private:
    void Describe(std::string& out, int level) const;
    Storage storage_;
};

}  // namespace qvk
