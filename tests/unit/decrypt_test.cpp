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

// The header `length` and the payload "payload-1234", enciphered with the product key in CBC mode
// with a zero initialisation vector, cut to its first `size` bytes.
Data Enciphered(std::uint32_t length, std::size_t size = 16) {
    std::string plain =
        std::string{char(length >> 24), char(length >> 16), char(length >> 8), char(length)} + "payload-1234";
    BF_KEY key;
    BF_set_key(&key, 16, QVK_Framework_EncryptionKey);
    unsigned char iv[8] = {}, cipher[16];
    BF_cbc_encrypt(reinterpret_cast<unsigned char*>(plain.data()), cipher, 16, &key, iv, BF_ENCRYPT);
    return Data{std::vector<std::uint8_t>(cipher, cipher + size)};
}

// The plaintext read with the product key, as text; none when it is refused.
std::optional<std::string> Plain(const Data& data, bool hasLengthHeader) {
    auto out = QVK_Framework_Decrypt(&data, true, hasLengthHeader);
    return out ? std::optional<std::string>(std::string(out->bytes.begin(), out->bytes.end())) : std::nullopt;
}

TEST(Decrypt, AFileIsReadBackWithItsOwnKeyOnly) {
    TempDir dir;
    Value list(Dictionary{{"Name", Value("Modem CD")}, {"Ports", Value(Array{Value(1), Value(2)})}});
    for (bool productKey : {true, false}) {
        std::string xml = platform::XmlPropertyList(list);
        auto cipher = QVK_Framework_Encrypt(Data{std::vector<std::uint8_t>(xml.begin(), xml.end())}, productKey);
        ASSERT_TRUE(cipher);
        WriteFile(dir.path() + "/list.bin", std::string(cipher->bytes.begin(), cipher->bytes.end()));
        EXPECT_EQ(QVK_Framework_LoadEncrypted(dir.path() + "/list.bin", productKey), list);
        EXPECT_EQ(QVK_Framework_LoadEncrypted(dir.path() + "/list.bin", !productKey), std::nullopt);
    }
}

TEST(Decrypt, TheSizeAndTheHeadersLengthAreBoundedByTheWholeCiphertext) {
    EXPECT_EQ(QVK_Framework_Decrypt(nullptr, true, true), std::nullopt);
    // With a header, more than 4 bytes and no whole blocks are needed, a final partial block
    // spoiling only itself; a length up to 4 bytes beyond the 12 that follow the header reads
    // zeros. Without a header, any whole number of blocks, the header and padding kept.
    EXPECT_EQ(Plain(Enciphered(12, 4), true), std::nullopt);
    EXPECT_EQ(Plain(Enciphered(4, 13), true), "payl");
    EXPECT_EQ(Plain(Enciphered(12), true), "payload-1234");
    EXPECT_EQ(Plain(Enciphered(16), true), std::string("payload-1234\0\0\0\0", 16));
    EXPECT_EQ(Plain(Enciphered(17), true), std::nullopt);
    EXPECT_EQ(Plain(Enciphered(12, 8), false), std::string("\0\0\0\x0cpayl", 8));
    EXPECT_EQ(Plain(Enciphered(12, 12), false), std::nullopt);
}

}  // namespace
}  // namespace qvk::test
