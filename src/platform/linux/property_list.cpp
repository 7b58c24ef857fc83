#include "platform/property_list.h"

#include <plist/plist.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

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

// A binary property list may share one object among many references, and the library copies the
// object at each of them: a file of a few hundred bytes can expand to gigabytes. What a list may
// cost once expanded is bounded: a node counts kNodeCost, each byte of a text or data three times
// (a description may print a byte as three characters or more), and each level of nesting the
// indentation a description gives it. 4 MiB of that keeps the library's tree, ours and a
// description well below 64 MiB.
constexpr std::uint64_t kExpansionLimit = std::uint64_t{4} << 20;
constexpr std::uint64_t kNodeCost = 64;
// Far deeper than any real property list; the library, the conversion and a description recurse
// once per level.
constexpr unsigned kDepthLimit = 128;

std::uint64_t Capped(std::uint64_t a, std::uint64_t b) { return std::min(a + b, kExpansionLimit + 1); }

// Walks the object graph of a binary property list as the library would expand it, without
// expanding it: true when it has no cycle, every reference lies in range, the expansion stays
// within the limits and no dictionary key is a UTF-16 text holding a NUL (the library fails an
// assertion on reading such a key). Anything else in the file is left to the library to judge.
class BinaryExpansion {
public:
    explicit BinaryExpansion(std::string_view bytes) : bytes_(bytes) {}

    bool WithinLimits() {
        constexpr std::size_t kHeader = 8, kTrailer = 32;
        if (bytes_.size() < kHeader + kTrailer) return false;
        const std::size_t trailer = bytes_.size() - kTrailer;
        offsetSize_ = static_cast<std::uint8_t>(bytes_[trailer + 6]);
        refSize_ = static_cast<std::uint8_t>(bytes_[trailer + 7]);
        if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8) return false;
        objects_ = Number(trailer + 8, 8);
        const std::uint64_t top = Number(trailer + 16, 8);
        table_ = Number(trailer + 24, 8);
        if (table_ < kHeader || table_ > trailer || objects_ > (trailer - table_) / offsetSize_ || top >= objects_)
            return false;

        std::optional<Object> root = Examine(top);
        if (!root) return false;
        std::vector<Frame> path{{top, *root}};
        marks_[top] = {0, 0, true, root->nulText};
        while (!path.empty()) {
            Frame& frame = path.back();
            if (frame.next < frame.object.references) {
                const bool key = frame.next < frame.object.keys;
                std::uint64_t child = Number(frame.object.referenceStart + frame.next++ * refSize_, refSize_);
                if (child >= objects_) return false;
                auto known = marks_.find(child);
                if (known != marks_.end()) {
                    if (known->second.onPath || (key && known->second.nulText)) return false;
                    frame.cost = Capped(frame.cost, known->second.cost);
                    frame.depth = std::max(frame.depth, known->second.depth + 1);
                    continue;
                }
                std::optional<Object> object = Examine(child);
                if (!object || (key && object->nulText) || path.size() >= kDepthLimit) return false;
                marks_[child] = {0, 0, true, object->nulText};
                path.push_back({child, *object});
                continue;
            }
            if (frame.cost > kExpansionLimit || frame.depth > kDepthLimit) return false;
            marks_[frame.index] = {frame.cost, frame.depth, false, frame.object.nulText};
            Frame done = frame;
            path.pop_back();
            if (!path.empty()) {
                path.back().cost = Capped(path.back().cost, done.cost);
                path.back().depth = std::max(path.back().depth, done.depth + 1);
            }
        }
        return true;
    }

private:
    struct Object {
        std::uint64_t cost = kNodeCost;
        std::uint64_t referenceStart = 0;
        std::uint64_t references = 0;
        // How many of the references are a dictionary's keys.
        std::uint64_t keys = 0;
        bool nulText = false;
    };
    struct Frame {
        std::uint64_t index;
        Object object;
        std::uint64_t next = 0;
        std::uint64_t cost = object.cost;
        unsigned depth = 1;
    };
    struct Mark {
        std::uint64_t cost = 0;
        unsigned depth = 0;
        bool onPath = false;
        bool nulText = false;
    };

    // The big-endian number of `width` bytes at `at`, which the caller keeps inside the file.
    std::uint64_t Number(std::uint64_t at, unsigned width) const {
        std::uint64_t n = 0;
        for (unsigned i = 0; i < width; ++i) n = n << 8 | static_cast<std::uint8_t>(bytes_[at + i]);
        return n;
    }

    // The object's own cost and where its references lie; none when its header or its references
    // leave the object area.
    std::optional<Object> Examine(std::uint64_t index) const {
        std::uint64_t at = Number(table_ + index * offsetSize_, offsetSize_);
        if (at < 8 || at >= table_) return std::nullopt;
        const auto marker = static_cast<std::uint8_t>(bytes_[at]);
        const unsigned type = marker >> 4;
        // Texts, data and containers carry a count; 0xF in the marker puts it in an integer after it.
        if (!(type >= 0x4 && type <= 0x7) && !(type >= 0xA && type <= 0xD)) return Object{};
        std::uint64_t count = marker & 0x0F, start = at + 1;
        if (count == 0x0F) {
            if (start >= table_) return std::nullopt;
            const auto sizeMarker = static_cast<std::uint8_t>(bytes_[start]);
            const unsigned width = 1u << (sizeMarker & 0x0F);
            if (sizeMarker >> 4 != 0x1 || width > 8 || table_ - start - 1 < width) return std::nullopt;
            count = Number(start + 1, width);
            start += 1 + width;
        }
        Object object;
        if (type <= 0x7) {
            // A UTF-16 unit takes up to three bytes as UTF-8.
            object.cost = Capped(kNodeCost, std::min(count, kExpansionLimit) * (type == 0x6 ? 3 : 1));
            for (std::uint64_t unit = 0; type == 0x6 && unit < std::min(count, (table_ - start) / 2); ++unit)
                object.nulText = object.nulText || (bytes_[start + 2 * unit] == 0 && bytes_[start + 2 * unit + 1] == 0);
        } else {
            // A dictionary refers to its keys, then to its values.
            const std::uint64_t perEntry = type == 0xD ? 2 : 1;
            if (count > (table_ - start) / refSize_ / perEntry) return std::nullopt;
            object.referenceStart = start;
            object.references = count * perEntry;
            object.keys = type == 0xD ? count : 0;
        }
        return object;
    }

    std::string_view bytes_;
    unsigned offsetSize_ = 0;
    unsigned refSize_ = 0;
    std::uint64_t objects_ = 0;
    std::uint64_t table_ = 0;
    std::unordered_map<std::uint64_t, Mark> marks_;
};

// Our value of the library's tree, within the same limits, which also bound lists the library
// reads without sharing (a deeply nested or very long XML list).
class Conversion {
public:
    std::optional<Value> Of(plist_t node, unsigned depth = 1) {
        if (depth > kDepthLimit || !Spend(kNodeCost + 4 * depth)) return std::nullopt;
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
        case PLIST_STRING: {
            // A NUL inside a text ends it: the library keeps the bytes after it only in binary
            // lists, and its copying call fails an assertion on such a text.
            std::uint64_t length = 0;
            const char* s = plist_get_string_ptr(node, &length);
            if (!s) return Value(std::string());
            if (!SpendText(length)) return std::nullopt;
            return Value(std::string(s, strnlen(s, length)));
        }
        case PLIST_KEY: {
            char* s = nullptr;
            plist_get_key_val(node, &s);
            std::unique_ptr<char, MallocDeleter> owned(s);
            return Value(std::string(s ? s : ""));
        }
        case PLIST_DATA: {
            std::uint64_t length = 0;
            const char* bytes = plist_get_data_ptr(node, &length);
            if (!SpendText(length)) return std::nullopt;
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
            // Walked with an iterator: the library may find an item by its index only by counting
            // from the first, which makes a long array take quadratic time.
            Array array;
            plist_array_iter it = nullptr;
            plist_array_new_iter(node, &it);
            std::unique_ptr<void, MallocDeleter> ownedIter(it);
            for (;;) {
                plist_t element = nullptr;
                plist_array_next_item(node, it, &element);
                if (!element) break;
                std::optional<Value> item = Of(element, depth + 1);
                if (!item) return std::nullopt;
                array.push_back(std::move(*item));
            }
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
                std::string name(key ? key : "");
                if (!SpendText(name.size())) return std::nullopt;
                std::optional<Value> value = Of(item, depth + 1);
                if (!value) return std::nullopt;
                dict.insert_or_assign(std::move(name), std::move(*value));
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

private:
    bool Spend(std::uint64_t cost) {
        spent_ = Capped(spent_, cost);
        return spent_ <= kExpansionLimit;
    }
    bool SpendText(std::uint64_t bytes) { return Spend(std::min(bytes, kExpansionLimit) * 3); }

    std::uint64_t spent_ = 0;
};

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
            // The library holds whole seconds in 32 bits.
            double mac = std::clamp(d.seconds - kMacEpochOffset, double{INT32_MIN}, double{INT32_MAX});
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
    const auto length = static_cast<std::uint32_t>(bytes.size());
    if (plist_is_binary(bytes.data(), length) && !BinaryExpansion(bytes).WithinLimits()) return std::nullopt;
    plist_t root = nullptr;
    plist_from_memory(bytes.data(), length, &root);
    if (!root) return std::nullopt;
    PlistPtr owned(root);
    return Conversion().Of(root);
}

std::optional<Value> ReadPropertyList(const std::string& path, FilePlace place) {
    std::optional<std::string> bytes = ReadBoundedFile(path, place);
    if (!bytes) return std::nullopt;
    return ParsePropertyList(*bytes);
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
