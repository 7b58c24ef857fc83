// Enciphered property lists: files read back with their own key only, the size tests with and
// without a length header, and the bounds of the header's length. Ciphertexts are made here with
// the library's routine directly, so the readers are not checked against their own writer alone.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/blowfish.h>

#include <gtest/gtest.h>

#include "framework/base/decrypt.h"
#include "platform/property_list.h"
#include "test_support.h"

namespace qvk::test {
namespace {

using Bytes = std::vector<std::uint8_t>;

// `plain` (whole blocks) enciphered in CBC mode with a zero initialisation vector.
Data Encipher(const Bytes& plain, bool productKey) {
    BF_KEY key;
    BF_set_key(&key, 16, productKey ? QVK_Framework_EncryptionKey : QVK_Framework_CommonKey);
    unsigned char iv[8] = {};
    Data out;
    out.bytes.resize(plain.size());
    BF_cbc_encrypt(plain.data(), out.bytes.data(), static_cast<long>(plain.size()), &key, iv, BF_ENCRYPT);
    return out;
}

// A 16-byte plaintext: the header `length`, then the payload "payload-1234".
Bytes WithHeader(std::uint32_t length) {
    Bytes plain = {static_cast<std::uint8_t>(length >> 24), static_cast<std::uint8_t>(length >> 16),
                   static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length)};
    for (char c : std::string("payload-1234")) plain.push_back(static_cast<std::uint8_t>(c));
    return plain;
}

Bytes Text(const std::string& text) { return Bytes(text.begin(), text.end()); }

std::optional<Bytes> Decrypt(const Data& data, bool hasLengthHeader, bool productKey = true) {
    auto out = QVK_Framework_Decrypt(&data, productKey, hasLengthHeader);
    if (!out) return std::nullopt;
    return out->bytes;
}

TEST(Decrypt, AnEncipheredFileIsReadBackWithItsOwnKeyOnly) {
    TempDir dir;
    Value list(Dictionary{{"Name", Value("Modem CD")}, {"Ports", Value(Array{Value(1), Value(2)})}});
    std::string xml = platform::XmlPropertyList(list);
    auto write = [&](const std::string& name, const Data& data) {
        std::string path = dir.path() + "/" + name;
        WriteFile(path, std::string(data.bytes.begin(), data.bytes.end()));
        return path;
    };
    auto cipher = QVK_Framework_Encrypt(Data{Text(xml)}, true);
    ASSERT_TRUE(cipher);
    EXPECT_EQ(cipher->bytes.size() % 8, 0u);
    std::string product = write("product.bin", *cipher);

    CapturingLogger logger;
    EXPECT_EQ(QVK_Framework_LoadEncrypted(product, true), list);
    auto payload = QVK_Framework_LoadEncryptedFile(product, true);
    ASSERT_TRUE(payload);
    EXPECT_EQ(payload->bytes, Text(xml)) << "the padding is cut off by the header's length";
    EXPECT_EQ(QVK_Framework_LoadEncrypted(product, false), std::nullopt) << "the common key is the wrong one";

    std::string common = write("common.bin", *QVK_Framework_Encrypt(Data{Text(xml)}, false));
    EXPECT_EQ(QVK_Framework_LoadEncrypted(common, false), list);
    EXPECT_EQ(QVK_Framework_LoadEncrypted(common, true), std::nullopt);

    std::string notAList = write("text.bin", *QVK_Framework_Encrypt(Data{Text("<plist><dict><key>")}, true));
    EXPECT_TRUE(QVK_Framework_LoadEncryptedFile(notAList, true)) << "deciphering alone succeeds";
    EXPECT_EQ(QVK_Framework_LoadEncrypted(notAList, true), std::nullopt);
    EXPECT_EQ(QVK_Framework_LoadEncrypted(dir.path() + "/missing.bin", true), std::nullopt);
    EXPECT_EQ(QVK_Framework_LoadEncrypted(dir.path(), true), std::nullopt) << "a folder is no file";

    // Only the path is logged, once per call, before anything else is done.
    ASSERT_EQ(logger.entries.size(), 7u);
    const auto& first = logger.entries.front();
    EXPECT_EQ(first.function, "QVK_Framework_LoadEncrypted");
    EXPECT_EQ(first.file, "Decrypt");
    EXPECT_EQ(first.line, 68u);
    EXPECT_EQ(first.type, "Trace");
    EXPECT_EQ(first.message, product);
    EXPECT_EQ(logger.entries.back().message, dir.path());
}

TEST(Decrypt, SizeTestsWithAndWithoutALengthHeader) {
    EXPECT_EQ(QVK_Framework_Decrypt(nullptr, true, true), std::nullopt);
    EXPECT_EQ(QVK_Framework_Decrypt(nullptr, true, false), std::nullopt);
    EXPECT_EQ(QVK_Framework_LoadFromData(nullptr), std::nullopt);

    // With a header, more than 4 bytes are needed and no whole blocks.
    Data sixteen = Encipher(WithHeader(12), true);
    EXPECT_EQ(Decrypt(Data{Bytes(sixteen.bytes.begin(), sixteen.bytes.begin() + 4)}, true), std::nullopt);
    // Found by search: with the product key these 5 bytes, read as a block with zeros after them,
    // decipher to the header 1 and the payload byte 3.
    EXPECT_EQ(Decrypt(Data{{0x36, 0x39, 0xa7, 0x14, 0xbb}}, true), (Bytes{0x03}));
    // A final partial block spoils only itself; the header and payload in the first block stand.
    Data cut{Bytes(sixteen.bytes.begin(), sixteen.bytes.begin() + 13)};
    Data header4 = Encipher(WithHeader(4), true);
    header4.bytes.resize(13);
    EXPECT_EQ(Decrypt(header4, true), Text("payl"));

    // Without a header, any whole number of blocks, none included; the padding is kept.
    EXPECT_EQ(Decrypt(Data{}, false), Bytes{});
    const Bytes plain = WithHeader(12);
    EXPECT_EQ(Decrypt(Data{Bytes(sixteen.bytes.begin(), sixteen.bytes.begin() + 8)}, false),
              Bytes(plain.begin(), plain.begin() + 8));
    EXPECT_EQ(Decrypt(sixteen, false), plain);
    EXPECT_EQ(Decrypt(Data{Bytes(sixteen.bytes.begin(), sixteen.bytes.begin() + 12)}, false), std::nullopt);
    EXPECT_EQ(Decrypt(cut, false), std::nullopt);
}

TEST(Decrypt, TheHeaderLengthIsBoundedByTheWholeCiphertext) {
    auto payload = [](std::uint32_t length) { return Decrypt(Encipher(WithHeader(length), true), true); };
    EXPECT_EQ(payload(0), Bytes{});
    EXPECT_EQ(payload(7), Text("payload"));
    EXPECT_EQ(payload(12), Text("payload-1234"));
    // Up to 4 bytes beyond the 12 that follow the header are accepted and read as zeros.
    Bytes grown = Text("payload-1234");
    grown.resize(16, 0);
    EXPECT_EQ(payload(16), grown);
    EXPECT_EQ(payload(17), std::nullopt);
    EXPECT_EQ(payload(0x80000000u), std::nullopt);
    EXPECT_EQ(payload(0xFFFFFFFFu), std::nullopt);
    // A wrong key deciphers to an implausible header here.
    EXPECT_EQ(Decrypt(Encipher(WithHeader(12), false), true, true), std::nullopt);
    EXPECT_EQ(Decrypt(Encipher(WithHeader(12), true), true, false), std::nullopt);
}

}  // namespace
}  // namespace qvk::test
