#include "platform/property_list.h"

#include <plist/plist.h>

#include <fstream>
#include <iterator>
#include <memory>

namespace qvk::platform {

namespace {

// libplist counts dates from 2001-01-01, as the Mac does.
constexpr double kMacEpochOffset = 978307200.0;

struct PlistDeleter {
    void operator()(plist_t node) const { plist_free(node); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

struct MallocDeleter {
    void operator()(void* p) const { std::free(p); }
};

Value FromNode(plist_t node) {
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        std::uint8_t b = 0;
        plist_get_bool_val(node, &b);
        return Value(b != 0);
    }
    case PLIST_UINT: {
        std::uint64_t u = 0;
        plist_get_uint_val(node, &u);
        return Value(static_cast<std::int64_t>(u));
    }
    case PLIST_REAL: {
        double d = 0;
        plist_get_real_val(node, &d);
        return Value(d);
    }
    case PLIST_STRING:
    case PLIST_KEY: {
        char* s = nullptr;
        plist_get_string_val(node, &s);
        std::unique_ptr<char, MallocDeleter> owned(s);
        return Value(std::string(s ? s : ""));
    }
    case PLIST_DATA: {
        char* bytes = nullptr;
        std::uint64_t length = 0;
        plist_get_data_val(node, &bytes, &length);
        std::unique_ptr<char, MallocDeleter> owned(bytes);
        Data data;
        if (bytes) data.bytes.assign(bytes, bytes + length);
        return Value(std::move(data));
    }
    case PLIST_DATE: {
        std::int32_t sec = 0, usec = 0;
        plist_get_date_val(node, &sec, &usec);
        return Value(Date{sec + usec / 1e6 + kMacEpochOffset});
    }
    case PLIST_ARRAY: {
        Array array;
        std::uint32_t n = plist_array_get_size(node);
        array.reserve(n);
        for (std::uint32_t i = 0; i < n; ++i) array.push_back(FromNode(plist_array_get_item(node, i)));
        return Value(std::move(array));
    }
    case PLIST_DICT: {
        Dictionary dict;
        plist_dict_iter it = nullptr;
        plist_dict_new_iter(node, &it);
        std::unique_ptr<void, MallocDeleter> ownedIter(it);
        for (;;) {
            char* key = nullptr;
            plist_t item = nullptr;
            plist_dict_next_item(node, it, &key, &item);
            if (!item) break;
            std::unique_ptr<char, MallocDeleter> ownedKey(key);
            dict.insert_or_assign(key ? key : "", FromNode(item));
        }
        return Value(std::move(dict));
    }
    case PLIST_UID: {
        std::uint64_t u = 0;
        plist_get_uid_val(node, &u);
        return Value(static_cast<std::int64_t>(u));
    }
    default: return Value();
    }
}

plist_t ToNode(const Value& value) {
    struct Visitor {
        plist_t operator()(std::monostate) const { return plist_new_string(""); }
        plist_t operator()(bool b) const { return plist_new_bool(b); }
        plist_t operator()(std::int64_t i) const { return plist_new_uint(static_cast<std::uint64_t>(i)); }
        plist_t operator()(double d) const { return plist_new_real(d); }
        plist_t operator()(const std::string& s) const { return plist_new_string(s.c_str()); }
        plist_t operator()(const Data& d) const {
            return plist_new_data(reinterpret_cast<const char*>(d.bytes.data()), d.bytes.size());
        }
        plist_t operator()(const Date& d) const {
            double mac = d.seconds - kMacEpochOffset;
            auto sec = static_cast<std::int32_t>(mac);
            return plist_new_date(sec, static_cast<std::int32_t>((mac - sec) * 1e6));
        }
        plist_t operator()(const Array& a) const { return Items(a); }
        plist_t operator()(const Set& s) const { return Items(s.members); }
        plist_t operator()(const Dictionary& d) const {
            plist_t dict = plist_new_dict();
            for (const auto& [key, item] : d) plist_dict_set_item(dict, key.c_str(), ToNode(item));
            return dict;
        }
        plist_t Items(const std::vector<Value>& items) const {
            plist_t array = plist_new_array();
            for (const Value& item : items) plist_array_append_item(array, ToNode(item));
            return array;
        }
    };
    return std::visit(Visitor{}, value.storage());
}

}  // namespace

std::optional<Value> ParsePropertyList(const std::string& bytes) {
    if (bytes.empty() || bytes.size() > UINT32_MAX) return std::nullopt;
    plist_t root = nullptr;
    plist_from_memory(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &root);
    if (!root) return std::nullopt;
    PlistPtr owned(root);
    return FromNode(root);
}

std::optional<Value> ReadPropertyList(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) return std::nullopt;
    return ParsePropertyList(bytes);
}

std::string XmlPropertyList(const Value& value) {
    PlistPtr root(ToNode(value));
    char* xml = nullptr;
    std::uint32_t length = 0;
    plist_to_xml(root.get(), &xml, &length);
    std::unique_ptr<char, MallocDeleter> owned(xml);
    return xml ? std::string(xml, length) : std::string();
}

}  // namespace qvk::platform
