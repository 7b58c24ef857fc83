// Property lists stored enciphered: Blowfish in CBC mode with an all-zero initialisation vector,
// over a plaintext that starts with the payload's length (4 bytes, big-endian).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/value.h"

// The two built-in 16-byte keys: the product's own and the common one.
extern const std::uint8_t QVK_Framework_EncryptionKey[16];
extern const std::uint8_t QVK_Framework_CommonKey[16];

// The decoded property list of an enciphered file; none when the file cannot be read, deciphered
// or parsed.
std::optional<qvk::Value> QVK_Framework_LoadEncrypted(const std::string& path, bool useProductKey);

// The deciphered payload of an enciphered file (length header applied); none on any failure.
std::optional<qvk::Data> QVK_Framework_LoadEncryptedFile(const std::string& path, bool useProductKey);

// The property list in `data` (XML or binary); none for null or unparsable data.
std::optional<qvk::Value> QVK_Framework_LoadFromData(const qvk::Data* data);

// Deciphers `data`. With a length header the data must be longer than 4 bytes and the result is
// the payload the header describes; without one it must be a multiple of 8 bytes and the result is
// the whole plaintext. None for null data, a failed size test or an implausible length.
std::optional<qvk::Data> QVK_Framework_Decrypt(const qvk::Data* data, bool useProductKey, bool hasLengthHeader);

// The reverse, for making such files: the payload behind its length header, padded with zeros to
// whole blocks and enciphered. None when the payload is too long for the header.
std::optional<qvk::Data> QVK_Framework_Encrypt(const qvk::Data& payload, bool useProductKey);
