#include "framework/base/text_encoding.h"

#include <cstdint>
#include <deque>
#include <mutex>

bool QVK_Framework_IsUTF8(std::string_view bytes) {
    std::size_t i = 0;
    while (i < bytes.size()) {
        auto c = static_cast<unsigned char>(bytes[i]);
        std::size_t len;
        std::uint32_t cp;
        if (c < 0x80) {
            ++i;
            continue;
        } else if (c >= 0xC2 && c <= 0xDF) {
            len = 2;
            cp = c & 0x1F;
        } else if (c >= 0xE0 && c <= 0xEF) {
            len = 3;
            cp = c & 0x0F;
        } else if (c >= 0xF0 && c <= 0xF4) {
            len = 4;
            cp = c & 0x07;
        } else {
            return false;
        }
        if (i + len > bytes.size()) return false;
        for (std::size_t k = 1; k < len; ++k) {
            auto cc = static_cast<unsigned char>(bytes[i + k]);
            if ((cc & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (cc & 0x3F);
        }
        // Overlong forms, surrogates and values beyond Unicode are not UTF-8.
        if ((len == 3 && cp < 0x800) || (len == 4 && (cp < 0x10000 || cp > 0x10FFFF)) || (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        i += len;
    }
    return true;
}

std::string QVK_Framework_DecodeLatin1(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size());
    for (char ch : bytes) {
        auto c = static_cast<unsigned char>(ch);
        if (c < 0x80) {
            out += ch;
        } else {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

std::optional<std::string> QVK_Framework_EncodeLatin1(std::string_view text) {
    if (!QVK_Framework_IsUTF8(text)) return std::nullopt;
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c == 0xC2 || c == 0xC3) {
            out += static_cast<char>(((c & 0x03) << 6) | (static_cast<unsigned char>(text[++i]) & 0x3F));
        } else {
            return std::nullopt;
        }
    }
    return out;
}

const char* QVK_Framework_KeepText(std::string text) {
    static std::mutex lock;
    static std::deque<std::string> kept;
    std::lock_guard guard(lock);
    return kept.emplace_back(std::move(text)).c_str();
}
