// Enciphered property lists. Ciphertexts are made here with the library's routine directly, so the
// readers are not checked against their own writer alone.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/blowfish.h>

#include <gtest/gtest.h>

#include "framework/base/decrypt.h"
#include "platform/property_list.h"
#include "test_support.h"

namespace qvk::test {
namespace {

using Bytes = std::vector<std::uint8_t>;

// The 16-byte plaintext of the header `length` and the payload "payload-1234", enciphered in CBC
// mode with a zero initialisation vector.
Data Enciphered(std::uint32_t length, bool productKey = true) {
    Bytes plain = {static_cast<std::uint8_t>(length >> 24), static_cast<std::uint8_t>(length >> 16),
                   static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length)};
    for (char c : std::string("payload-1234")) plain.push_back(static_cast<std::uint8_t>(c));
    BF_KEY key;
    BF_set_key(&key, 16, productKey ? QVK_Framework_EncryptionKey : QVK_Framework_CommonKey);
    unsigned char iv[8] = {};
    Data out{Bytes(plain.size())};
    BF_cbc_encrypt(plain.data(), out.bytes.data(), static_cast<long>(plain.size()), &key, iv, BF_ENCRYPT);
    return out;
}

std::optional<Bytes> Decrypt(const Data& data, bool hasLengthHeader, bool productKey = true) {
    auto out = QVK_Framework_Decrypt(&data, productKey, hasLengthHeader);
    return out ? std::optional<Bytes>(out->bytes) : std::nullopt;
}

Bytes Text(const std::string& text) { return Bytes(text.begin(), text.end()); }

TEST(Decrypt, AFileIsReadBackWithItsOwnKeyOnly) {
    TempDir dir;
    Value list(Dictionary{{"Name", Value("Modem CD")}, {"Ports", Value(Array{Value(1), Value(2)})}});
    for (bool productKey : {true, false}) {
        auto cipher = QVK_Framework_Encrypt(Data{Text(platform::XmlPropertyList(list))}, productKey);
        ASSERT_TRUE(cipher);
        WriteFile(dir.path() + "/list.bin", std::string(cipher->bytes.begin(), cipher->bytes.end()));
        EXPECT_EQ(QVK_Framework_LoadEncrypted(dir.path() + "/list.bin", productKey), list);
        EXPECT_EQ(QVK_Framework_LoadEncrypted(dir.path() + "/list.bin", !productKey), std::nullopt);
    }
    EXPECT_EQ(QVK_Framework_LoadEncrypted(dir.path(), true), std::nullopt) << "a folder is no file";
}

TEST(Decrypt, TheSizeAndTheHeadersLengthAreBoundedByTheWholeCiphertext) {
    EXPECT_EQ(QVK_Framework_Decrypt(nullptr, true, true), std::nullopt);
    const Data sixteen = Enciphered(12);
    auto first = [&](std::size_t n) { return Data{Bytes(sixteen.bytes.begin(), sixteen.bytes.begin() + n)}; };
    // With a header, more than 4 bytes and no whole blocks are needed; a final partial block spoils
    // only itself.
    EXPECT_EQ(Decrypt(first(4), true), std::nullopt);
    Data header4 = Enciphered(4);
    header4.bytes.resize(13);
    EXPECT_EQ(Decrypt(header4, true), Text("payl"));
    // Without a header, any whole number of blocks, none included; the padding is kept.
    EXPECT_EQ(Decrypt(Data{}, false), Bytes{});
    EXPECT_EQ(Decrypt(first(8), false), Bytes({0, 0, 0, 12, 'p', 'a', 'y', 'l'}));
    EXPECT_EQ(Decrypt(first(12), false), std::nullopt);

    EXPECT_EQ(Decrypt(Enciphered(0), true), Bytes{});
    EXPECT_EQ(Decrypt(Enciphered(12), true), Text("payload-1234"));
    // Up to 4 bytes beyond the 12 that follow the header are accepted and read as zeros.
    EXPECT_EQ(Decrypt(Enciphered(16), true), Text(std::string("payload-1234\0\0\0\0", 16)));
    EXPECT_EQ(Decrypt(Enciphered(17), true), std::nullopt);
    EXPECT_EQ(Decrypt(Enciphered(0xFFFFFFFFu), true), std::nullopt);
    EXPECT_EQ(Decrypt(Enciphered(12, false), true, true), std::nullopt) << "a wrong key gives an implausible header";
}

}  // namespace
}  // namespace qvk::test
