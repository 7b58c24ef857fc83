// The Linux implementations that read files: property lists and the system version file; the
// paths the system keeps for links and the working directory.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "../unit/test_support.h"
#include "platform/linux/system_version_file.h"
#include "platform/path.h"
#include "platform/property_list.h"

namespace qvk::test {
namespace {

using namespace std::string_literals;

using platform::ReadSystemVersionFile;
using platform::SystemVersionNumber;

TEST(Paths, LinkTargetsAndTheWorkingDirectoryAreReadWholeAtAnyLength) {
    EXPECT_EQ(platform::ParentFolder("/a/b.app"), "/a");
    EXPECT_EQ(platform::ParentFolder("/a/b.app//"), "/a");
    EXPECT_EQ(platform::ParentFolder("/b.app"), "/");
    EXPECT_EQ(platform::ParentFolder("b.app"), "") << "a bare name names no folder, not the working one";

    TempDir dir;
    // 255, 256 and 257 bytes border on the first buffer; 2000 needs it to grow several times.
    for (std::size_t length : {255u, 256u, 257u, 2000u}) {
        std::string target = "/" + std::string(length - 1, 't');
        std::string link = dir.path() + "/link" + std::to_string(length);
        ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
        EXPECT_EQ(platform::ReadLink(link), target);
    }
    EXPECT_EQ(platform::ReadLink(dir.path() + "/none"), std::nullopt);

    std::string deep = dir.path();
    while (deep.size() < 700) deep += "/" + std::string(60, 'd');
    std::filesystem::create_directories(deep);
    std::string saved = std::filesystem::current_path();
    ASSERT_EQ(chdir(deep.c_str()), 0);
    std::optional<std::string> working = platform::WorkingDirectory();
    ASSERT_EQ(chdir(saved.c_str()), 0);
    EXPECT_EQ(working, std::filesystem::canonical(deep).string());
}

TEST(SystemVersionFile, MapsReleasesToTheCappedNumber) {
    TempDir dir;
    std::string path = dir.path() + "/SystemVersion.plist";
    auto number = [&](const char* version) -> std::optional<std::uint32_t> {
        WritePlist(path, {{"ProductVersion", version}});
        auto parts = ReadSystemVersionFile(path);
        return parts ? SystemVersionNumber(*parts) : std::nullopt;
    };
    EXPECT_EQ(number("10.5.8"), 0x1058u);
    EXPECT_EQ(number("10.6"), 0x1060u);
    EXPECT_EQ(number("10.10.3"), 0x1093u);
    EXPECT_EQ(number("10.15.7"), 0x1097u);
    EXPECT_EQ(number("11.2.1"), 0x1099u);
    EXPECT_EQ(number("10.5.x"), std::nullopt);
    EXPECT_EQ(number("ten"), std::nullopt);
    WriteFile(path, "not a property list");
    EXPECT_EQ(ReadSystemVersionFile(path), std::nullopt);
    // Without the file the system counts as 10.15.0.
    auto missing = ReadSystemVersionFile(dir.path() + "/none.plist");
    ASSERT_TRUE(missing);
    EXPECT_EQ(missing->minor, 15);
    EXPECT_EQ(SystemVersionNumber(*missing), 0x1090u);
}

TEST(PropertyList, ReadsXmlAndBinaryAndWritesXmlBack) {
    Value original(Dictionary{{"Label", Value("com.quorvik.Launcher")},
                              {"ProgramArguments", Value(Array{Value("a b"), Value(std::int64_t{-5})})},
                              {"RunAtLoad", Value(true)},
                              {"Data", Value(Data{{1, 2, 3}})}});
    std::string xml = platform::XmlPropertyList(original);
    EXPECT_NE(xml.find("<key>RunAtLoad</key>"), std::string::npos);
    EXPECT_EQ(platform::ParsePropertyList(xml), original);
    TempDir dir;
    // A small binary list: { a = 1; }
    const unsigned char binary[] = {'b',  'p',  'l',  'i',  's',  't', '0', '0', 0xD1, 0x01, 0x02, 0x51, 'a',
                                    0x10, 0x01, 0x08, 0x0B, 0x0D, 0,   0,   0,   0,    0,    0,    1,    1,
                                    0,    0,    0,    0,    0,    0,   0,   3,   0,    0,    0,    0,    0,
                                    0,    0,    0,    0,    0,    0,   0,   0,   0,    0,    0x0F};
    WriteFile(dir.path() + "/b.plist", std::string(reinterpret_cast<const char*>(binary), sizeof binary));
    auto read = platform::ReadPropertyList(dir.path() + "/b.plist");
    ASSERT_TRUE(read);
    EXPECT_EQ(read->Description(), "{\n    a = 1;\n}");
    EXPECT_EQ(platform::ReadPropertyList(dir.path() + "/missing.plist"), std::nullopt);
    WriteFile(dir.path() + "/bad.plist", "<plist><dict><key>a</key>");
    EXPECT_EQ(platform::ReadPropertyList(dir.path() + "/bad.plist"), std::nullopt);
}

// A binary list of the given objects, each already encoded with one-byte references; the last is
// the root. Offsets take two bytes.
std::string BinaryList(const std::vector<std::string>& objects) {
    std::string body, offsets;
    for (const std::string& object : objects) {
        offsets += {'\0', static_cast<char>(8 + body.size())};
        body += object;
    }
    std::string trailer(32, '\0');
    trailer[6] = 2;
    trailer[7] = 1;
    trailer[15] = static_cast<char>(objects.size());
    trailer[23] = static_cast<char>(objects.size() - 1);
    trailer[31] = static_cast<char>(8 + body.size());
    return "bplist00" + body + offsets + trailer;
}

// `levels` arrays, each referring twice to the one below, over the text "x": the library copies a
// shared object at each reference, so the list expands to 2^levels texts.
std::string SharedArrays(int levels) {
    std::vector<std::string> objects{"\x51x"};
    for (int i = 1; i <= levels; ++i) objects.push_back({'\xA2', static_cast<char>(i - 1), static_cast<char>(i - 1)});
    return BinaryList(objects);
}

TEST(PropertyList, HostileListsAreRefusedOrReadWhole) {
    Value expanded("x");
    for (int i = 0; i < 3; ++i) expanded = Value(Array{expanded, expanded});
    EXPECT_EQ(platform::ParsePropertyList(SharedArrays(3)), expanded);
    EXPECT_EQ(platform::ParsePropertyList(SharedArrays(40)), std::nullopt);
    std::string nested;
    for (int i = 0; i < 200; ++i) nested.insert(nested.size() / 2, "<array></array>");
    EXPECT_EQ(platform::ParsePropertyList("<plist>" + nested + "</plist>"), std::nullopt);

    // A NUL ends a text; a UTF-16 key holding one, which the library cannot read, refuses the list.
    const std::string utf16 = "\x63\0a\0\0\0b"s;
    EXPECT_EQ(platform::ParsePropertyList(BinaryList({"\x51k", utf16, "\xD1\x00\x01"s})),
              Value(Dictionary{{"k", Value("a")}}));
    EXPECT_EQ(platform::ParsePropertyList(BinaryList({utf16, "\x51v", "\xD1\x00\x01"s})), std::nullopt);
    TempDir dir;
    WriteFile(dir.path() + "/nul.plist", "<plist><dict><key>k</key><string>a\0b</string></dict></plist>"s);
    EXPECT_EQ(platform::ReadPropertyList(dir.path() + "/nul.plist"), Value(Dictionary{{"k", Value("a")}}));
    ASSERT_EQ(mkfifo((dir.path() + "/pipe.plist").c_str(), 0600), 0);
    EXPECT_EQ(platform::ReadPropertyList(dir.path() + "/pipe.plist"), std::nullopt);
}

}  // namespace
}  // namespace qvk::test
