#include "framework/base/decrypt.h"

// The low-level Blowfish calls are marked deprecated by OpenSSL 3; the framework uses them here only.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/blowfish.h>
#include <openssl/crypto.h>

#include <limits>

#include "framework/log/logging.h"
#include "platform/file_read.h"
#include "platform/property_list.h"

const std::uint8_t QVK_Framework_EncryptionKey[16] = {0x96, 0x1d, 0x99, 0x4b, 0x70, 0x17, 0x5a, 0x3f,
                                                      0xf7, 0x3d, 0x15, 0x5a, 0xc5, 0xc3, 0x0f, 0x90};
const std::uint8_t QVK_Framework_CommonKey[16] = {0xf2, 0x20, 0x19, 0x1b, 0x18, 0x6b, 0xeb, 0x9b,
                                                  0x6f, 0xe8, 0x4d, 0x00, 0x0d, 0x0c, 0x75, 0xbb};

namespace {

constexpr std::size_t kHeaderSize = 4;
constexpr std::size_t kBlockSize = 8;

std::size_t WholeBlocks(std::size_t size) { return (size + kBlockSize - 1) / kBlockSize * kBlockSize; }

// Runs the CBC routine over `size` bytes of `in` (which holds whole blocks) into `out`.
void Cipher(const std::uint8_t* in, std::uint8_t* out, std::size_t size, bool useProductKey, int direction) {
    BF_KEY schedule;
    BF_set_key(&schedule, sizeof QVK_Framework_EncryptionKey,
               useProductKey ? QVK_Framework_EncryptionKey : QVK_Framework_CommonKey);
    unsigned char iv[kBlockSize] = {};
    BF_cbc_encrypt(in, out, static_cast<long>(size), &schedule, iv, direction);
    OPENSSL_cleanse(&schedule, sizeof schedule);
}

}  // namespace

std::optional<qvk::Value> QVK_Framework_LoadEncrypted(const std::string& path, bool useProductKey) {
    QVK_Framework_Log_Internal("QVK_Framework_LoadEncrypted", "Decrypt", 68, 5, "%@", path);
    std::optional<qvk::Data> payload = QVK_Framework_LoadEncryptedFile(path, useProductKey);
    if (!payload) return std::nullopt;
    return QVK_Framework_LoadFromData(&*payload);
}

std::optional<qvk::Data> QVK_Framework_LoadEncryptedFile(const std::string& path, bool useProductKey) {
    std::optional<std::string> bytes = qvk::platform::ReadBoundedFile(path, qvk::platform::FilePlace::Anywhere);
    if (!bytes) return std::nullopt;
    qvk::Data file;
    file.bytes.assign(bytes->begin(), bytes->end());
    return QVK_Framework_Decrypt(&file, useProductKey, true);
}

std::optional<qvk::Value> QVK_Framework_LoadFromData(const qvk::Data* data) {
    if (!data) return std::nullopt;
    return qvk::platform::ParsePropertyList(std::string(data->bytes.begin(), data->bytes.end()));
}

std::optional<qvk::Data> QVK_Framework_Decrypt(const qvk::Data* data, bool useProductKey, bool hasLengthHeader) {
    if (!data) return std::nullopt;
    const std::size_t size = data->bytes.size();
    if (hasLengthHeader ? size <= kHeaderSize : size % kBlockSize != 0) return std::nullopt;
    if (size > static_cast<std::size_t>(std::numeric_limits<long>::max() - kBlockSize)) return std::nullopt;

    // For a final partial block the CBC routine still reads a whole block; it reads zeros here
    // instead of running past the data, and writes only the partial block's bytes.
    std::vector<std::uint8_t> in(data->bytes);
    in.resize(WholeBlocks(size), 0);
    qvk::Data out;
    out.bytes.resize(in.size());
    Cipher(in.data(), out.bytes.data(), size, useProductKey, BF_DECRYPT);
    out.bytes.resize(size);
    if (!hasLengthHeader) return out;

    const std::uint32_t length = std::uint32_t{out.bytes[0]} << 24 | std::uint32_t{out.bytes[1]} << 16 |
                                 std::uint32_t{out.bytes[2]} << 8 | std::uint32_t{out.bytes[3]};
    // Compared with the whole ciphertext, header included, on purpose: a length up to 4 bytes
    // beyond the payload passes, and the bytes it adds read as zeros.
    if (length > size) return std::nullopt;
    out.bytes.erase(out.bytes.begin(), out.bytes.begin() + kHeaderSize);
    out.bytes.resize(length, 0);
    return out;
}

std::optional<qvk::Data> QVK_Framework_Encrypt(const qvk::Data& payload, bool useProductKey) {
    const std::size_t length = payload.bytes.size();
    if (length > std::numeric_limits<std::uint32_t>::max() - kHeaderSize - kBlockSize) return std::nullopt;
    std::vector<std::uint8_t> plain = {static_cast<std::uint8_t>(length >> 24), static_cast<std::uint8_t>(length >> 16),
                                       static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length)};
    plain.insert(plain.end(), payload.bytes.begin(), payload.bytes.end());
    plain.resize(WholeBlocks(plain.size()), 0);
    qvk::Data out;
    out.bytes.resize(plain.size());
    Cipher(plain.data(), out.bytes.data(), plain.size(), useProductKey, BF_ENCRYPT);
    return out;
}
