// Decryption and the property list it yields. The first byte chooses: bit 0 the key, bit 1
// whether the rest is ciphertext to decrypt as it is, or a payload to encrypt first, so that the
// property-list reading behind the cipher is reached too.
#include <cstddef>
#include <cstdint>

#include "framework/base/decrypt.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const bool productKey = data[0] & 1, ciphertext = data[0] & 2;
    qvk::Data input;
    input.bytes.assign(data + 1, data + size);
    std::optional<qvk::Data> payload;
    if (ciphertext) {
        QVK_Framework_Decrypt(&input, productKey, false);
        payload = QVK_Framework_Decrypt(&input, productKey, true);
    } else {
        std::optional<qvk::Data> enciphered = QVK_Framework_Encrypt(input, productKey);
        if (!enciphered) __builtin_trap();
        payload = QVK_Framework_Decrypt(&*enciphered, productKey, true);
        if (!payload || *payload != input) __builtin_trap();
    }
    if (std::optional<qvk::Value> value = QVK_Framework_LoadFromData(payload ? &*payload : nullptr))
        value->Description();
    return 0;
}
