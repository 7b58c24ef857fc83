// The framework's and platform's text helpers: numbers, versions, command output, encodings,
// format texts, and what a command text and the environment become for a super-user's child.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "framework/base/command_output.h"
#include "framework/base/kernel_error_message.h"
#include "framework/base/string_to_number.h"
#include "framework/base/system_version.h"
#include "framework/base/text_encoding.h"
#include "platform/command_words.h"
#include "platform/environment.h"
#include "test_support.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;

TEST(StringToNumberDeathTest, ReadsHexOctalAndDecimalAndLeftoverCharactersEndTheProcess) {
    for (auto [text, number] : {std::pair{"0x12D1", 4817}, {"010", 8}, {"12", 12}, {"-0x10", -16}})
        EXPECT_EQ(QVK_Framework_StringToNumber(Value(text)), Value(std::int64_t{number})) << text;
    EXPECT_EQ(QVK_Framework_StringToNumber(Value(std::int64_t{7})), Value(std::int64_t{7}));
    EXPECT_DEATH(QVK_Framework_StringToNumber(Value("09")),
                 "Assertion failed: \\(\\*End=='\\\\0'\\), function QVK_Framework_StringToNumber, file "
                 "StringToNumber, line 22\\.");
}

TEST(SystemVersionDeathTest, AnUnknownVersionIsAnAssertion) {
    FakeGestalt none(std::nullopt);
    platform::Replace<platform::Gestalt> use(none);
    EXPECT_DEATH(QVK_Framework_SystemVersion(), "\\(Error==noErr\\), function QVK_Framework_SystemVersion");
}

// A shell that cannot start anything, as when no process can be made.
class FailingShell : public RecordingShell {
public:
    std::optional<std::string> Output(const std::string&, int&) override {
        errno = EAGAIN;
        return std::nullopt;
    }
};

TEST(CommandOutput, TakesTheWholeOutputAsUtf8OrLatin1AndLogsTheRawStatus) {
    EXPECT_EQ(QVK_Framework_GetCommandOutput("printf 'a\\n\\303\\251\\n'"), "a\n\xc3\xa9\n");
    CapturingLogger logger;
    EXPECT_EQ(QVK_Framework_GetCommandOutput("printf 'caf\\351'; exit 1"), "caf\xc3\xa9");
    FailingShell failing;
    platform::Replace<platform::Shell> useFailing(failing);
    EXPECT_EQ(QVK_Framework_GetCommandOutput("true"), std::nullopt);
    EXPECT_THAT(
        logger.LogLines(),
        ElementsAre(
            "GetCommandOutput:41(Trace): QVK_Framework_GetCommandOutput: Status: printf 'caf\\351'; exit 1 -> 256\\n",
            "GetCommandOutput:48(Trace): QVK_Framework_GetCommandOutput: printf 'caf\\351'; exit 1 -> caf\xc3\xa9",
            "GetCommandOutput:46(Errors): QVK_Framework_GetCommandOutput: true: Resource temporarily unavailable",
            "GetCommandOutput:48(Trace): QVK_Framework_GetCommandOutput: true -> (null)"));
}

TEST(KernelErrorMessage, NamesTwoCodesAndPrintsTheOthersPerThread) {
    EXPECT_STREQ(QVK_Framework_KernelError_Message(static_cast<std::int32_t>(0xE00002C0)), "kIOReturnNoDevice");
    EXPECT_STREQ(QVK_Framework_KernelError_Message(static_cast<std::int32_t>(0xE00002CD)), "kIOReturnNotOpen");
    const char* mine = QVK_Framework_KernelError_Message(static_cast<std::int32_t>(0xE00002C7));
    std::thread([] { EXPECT_STREQ(QVK_Framework_KernelError_Message(0), "00000000"); }).join();
    EXPECT_STREQ(mine, "ffffffffe00002c7");
}

TEST(TextEncoding, Latin1BothWaysAndStrictUtf8) {
    EXPECT_EQ(QVK_Framework_EncodeLatin1("M\xc3\xbcnster"), "M\xfcnster");
    EXPECT_EQ(QVK_Framework_EncodeLatin1("\xe2\x82\xac"), std::nullopt);
    EXPECT_EQ(QVK_Framework_DecodeLatin1("Succ\xe8s"), "Succ\xc3\xa8s");
    for (const char* text : {"\xc0\xaf", "\xed\xa0\x80", "\xe2\x82", "\xe0\x80\xaf", "\xc1\xbf"})
        EXPECT_FALSE(QVK_Framework_IsUTF8(text)) << text;
    EXPECT_TRUE(QVK_Framework_IsUTF8("\xf0\x9f\x98\x80\xc2\xa0"));
}

TEST(Format, ConversionsFollowTheLengthModifierAndFieldsBeyondTheBoundStandAsWritten) {
    EXPECT_EQ(Format("uid: %u euid: %u", -1, 0), "uid: 4294967295 euid: 0");
    EXPECT_EQ(Format("%08lx|%08x|%04x", std::int64_t{-536870208}, 0x1058, 0x12d1), "ffffffffe00002c0|00001058|12d1");
    EXPECT_EQ(Format("%d %hhd %ld", std::int64_t{0x100000005}, 0x1ff, std::int64_t{-7}), "5 -1 -7");
    EXPECT_EQ(Format("%5.1f|%-3s|%c|%%|100%|%y", 2.25, "a", 'x', 1), "  2.2|a  |x|%|100%|%y");
    EXPECT_EQ(Format("%4096s|", "a").size(), 4097u);
    EXPECT_EQ(Format("%.4097f|%-4097@|%d", 1.5, Value(1), 7), "%.4097f|%-4097@|7");
    EXPECT_EQ(Format("%*d|%.*s|%.*s|%.*s", -2000000000, 1, -1, "abc", 0, "abc", 5000, "abc"), "%*d|abc||%.*s");
    EXPECT_EQ(Format("%@ -> %@|%s", std::string("/a b"), nullptr, static_cast<const char*>(nullptr)),
              "/a b -> (null)|(null)");
}

TEST(Format, ObjectsPrintWithTheirNestedIndentation) {
    Value v(Dictionary{{"Product", Value(Array{Value("0x1001"), Value(3)})}, {"e", Value(Array{})}});
    EXPECT_EQ(v.Description(), "{\n    Product =     (\n        0x1001,\n        3\n    );\n    e =     (\n    );\n}");
    Value list(Array{Value(Dictionary{{"a", Value(true)}}), Value("x\"y\xc3\xa9")});
    EXPECT_EQ(list.Description(), "(\n        {\n        a = 1;\n    },\n    \"x\\\"y\\U00e9\"\n)");
    EXPECT_EQ(Value(Data{{1, 2, 3, 4, 5, 6, 7, 8, 0xab}}).Description(), "<01020304 05060708 ab>");
    EXPECT_EQ(Value(Array{Value("Zz09"), Value("a-z")}).Description(), "(\n    Zz09,\n    \"a-z\"\n)");
}

TEST(SimpleCommandWords, RunsWithoutAShellOnlyWhatTheShellWouldRunAsItIs) {
    using Words = std::optional<std::vector<std::string>>;
    EXPECT_EQ(platform::SimpleCommandWords("/usr/bin/open -a \"/Applications/Quorvik Link.app\""),
              Words({"/usr/bin/open", "-a", "/Applications/Quorvik Link.app"}));
    EXPECT_EQ(platform::SimpleCommandWords("rm  -rf\t\"/a b\"\"c\"d \"\" k=v"),
              Words({"rm", "-rf", "/a bcd", "", "k=v"}));
    // Pipes, redirections, expansions, patterns, other quotes, comments, a home folder, an
    // assignment, a built-in or reserved word, an open quote, nothing at all: the shell's.
    for (const char* command : {"ps -A | grep x", "echo x > /tmp/y", "rm \"$HOME\"", "rm \"`id`\"", "rm \"a\\\"b\"",
                                "rm *", "rm 'a'", "rm x #y", "rm ~/x", "PATH=/tmp rm x", "kill -HUP 1", "\"kill\" 1",
                                "if x", "rm \"x", "rm x;id", "\"\" x", "  "})
        EXPECT_EQ(platform::SimpleCommandWords(command), std::nullopt) << command;
}

TEST(SuperUserEnvironment, KeepsTheSessionAndLanguageAndNothingThatSteersAProgram) {
    EXPECT_THAT(
        platform::SuperUserEnvironment({"PATH=/home/maria/bin", "HOME=/Users/maria", "HOME=/elsewhere",
                                        "BASH_FUNC_ps%%=() { id; }", "SHELLOPTS=xtrace",
                                        "LD_PRELOAD=/home/maria/evil.so", "LANG=de_DE.UTF-8", "LC_ALL=fr_FR",
                                        "LANGUAGE=de:../../home/maria", "TZ=Europe/Berlin", "TZ=CET", "DISPLAY=:1",
                                        "QUORVIKCRAP_INSTALLATIONMOVED=", "=odd", "noequals"}),
        ElementsAre("PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "HOME=/Users/maria",
                    "LANG=de_DE.UTF-8", "LC_ALL=fr_FR", "TZ=CET", "DISPLAY=:1", "QUORVIKCRAP_INSTALLATIONMOVED="));
}

}  // namespace
}  // namespace qvk::test
