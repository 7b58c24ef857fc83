#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "framework/base/command_output.h"
#include "framework/base/kernel_error_message.h"
#include "framework/base/string_to_number.h"
#include "framework/base/system_version.h"
#include "framework/base/text_encoding.h"
#include "test_support.h"

namespace qvk::test {
namespace {

std::int64_t Number(const char* text) {
    std::int64_t n = -999;
    EXPECT_TRUE(QVK_Framework_StringToNumber(Value(text)).GetInteger(n)) << text;
    return n;
}

TEST(StringToNumber, ReadsHexOctalAndDecimalAndPassesOtherValuesThrough) {
    EXPECT_EQ(Number("0x12D1"), 4817);
    EXPECT_EQ(Number("010"), 8);
    EXPECT_EQ(Number("12"), 12);
    EXPECT_EQ(Number("-0x10"), -16);
    EXPECT_EQ(QVK_Framework_StringToNumber(Value(std::int64_t{7})), Value(std::int64_t{7}));
    EXPECT_TRUE(QVK_Framework_StringToNumber(Value()).IsNull());
}

TEST(StringToNumberDeathTest, LeftoverCharactersEndTheProcess) {
    EXPECT_DEATH(QVK_Framework_StringToNumber(Value("0x12d1 ")),
                 "Assertion failed: \\(\\*End=='\\\\0'\\), function QVK_Framework_StringToNumber, file "
                 "StringToNumber, line 22\\.");
    EXPECT_DEATH(QVK_Framework_StringToNumber(Value("09")), "StringToNumber, line 22");
}

TEST(SystemVersion, KextFolderFollowsTheRelease) {
    FakeGestalt v1014(0x1094, {10, 14, 6});
    FakeGestalt v1015(0x1090, {10, 15, 0});
    FakeGestalt v1058(0x1058, {10, 5, 8});
    auto folder = [](FakeGestalt& g) {
        platform::Replace<platform::Gestalt> use(g);
        return KextFolder();
    };
    EXPECT_EQ(folder(v1058), "/System/Library/Extensions");
    EXPECT_EQ(folder(v1014), "/System/Library/Extensions");
    EXPECT_EQ(folder(v1015), "/Library/Extensions");
    platform::Replace<platform::Gestalt> use(v1058);
    EXPECT_EQ(QVK_Framework_SystemVersion(), 0x1058u);
}

TEST(SystemVersionDeathTest, AnUnknownVersionIsAnAssertion) {
    FakeGestalt none(std::nullopt);
    platform::Replace<platform::Gestalt> use(none);
    EXPECT_DEATH(QVK_Framework_SystemVersion(),
                 "\\(Error==noErr\\), function QVK_Framework_SystemVersion, file "
                 "SystemVersion, line 18\\.");
}

TEST(CommandOutput, TakesTheWholeOutputAndLogsTheRawStatus) {
    CapturingLogger logger;
    EXPECT_EQ(QVK_Framework_GetCommandOutput("printf 'a\\nb\\n'; exit 1"), "a\nb\n");
    EXPECT_EQ(QVK_Framework_GetCommandOutput("true"), "");
    // Not UTF-8: read as ISO Latin-1.
    EXPECT_EQ(QVK_Framework_GetCommandOutput("printf 'caf\\351'"), "caf\xc3\xa9");
    EXPECT_THAT(logger.MessagesOf("QVK_Framework_GetCommandOutput"),
                ::testing::ElementsAre("Status: printf 'a\\nb\\n'; exit 1 -> 256\\n",
                                       "printf 'a\\nb\\n'; exit 1 -> a\\nb\\n", "Status: true -> 0\\n", "true -> ",
                                       "Status: printf 'caf\\351' -> 0\\n", "printf 'caf\\351' -> caf\xc3\xa9"));
    EXPECT_EQ(logger.entries[0].line, 41u);
    EXPECT_EQ(logger.entries[1].line, 48u);
}

TEST(KernelErrorMessage, NamesTwoCodesAndPrintsTheOthersPerThread) {
    EXPECT_STREQ(QVK_Framework_KernelError_Message(static_cast<std::int32_t>(0xE00002C0)), "kIOReturnNoDevice");
    EXPECT_STREQ(QVK_Framework_KernelError_Message(static_cast<std::int32_t>(0xE00002CD)), "kIOReturnNotOpen");
    EXPECT_STREQ(QVK_Framework_KernelError_Message(0xE00002C0), "e00002c0");
    EXPECT_STREQ(QVK_Framework_KernelError_Message(static_cast<std::int32_t>(0xE00002C7)), "ffffffffe00002c7");
    const char* mine = QVK_Framework_KernelError_Message(0x2C0);
    std::thread([] { EXPECT_STREQ(QVK_Framework_KernelError_Message(0), "00000000"); }).join();
    EXPECT_STREQ(mine, "000002c0");
}

TEST(TextEncoding, Latin1BothWays) {
    EXPECT_EQ(QVK_Framework_EncodeLatin1("M\xc3\xbcnster"), "M\xfcnster");
    EXPECT_EQ(QVK_Framework_EncodeLatin1("\xe2\x82\xac"), std::nullopt);
    EXPECT_EQ(QVK_Framework_EncodeLatin1("\xe4"), std::nullopt);
    EXPECT_EQ(QVK_Framework_DecodeLatin1("Succ\xe8s"), "Succ\xc3\xa8s");
    EXPECT_FALSE(QVK_Framework_IsUTF8("\xc0\xaf"));
    EXPECT_FALSE(QVK_Framework_IsUTF8("\xed\xa0\x80"));
    EXPECT_TRUE(QVK_Framework_IsUTF8("\xf0\x9f\x98\x80"));
}

}  // namespace
}  // namespace qvk::test
