// Files on the real kernel: the home user's file-system identity taken by one thread, property
// lists and the system version file read through the library.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <future>
#include <thread>

#include "../unit/test_support.h"
#include "platform/home_user.h"
#include "platform/linux/system_version_file.h"

namespace qvk::test {
namespace {

using namespace std::string_literals;

constexpr unsigned kNobody = 65534;

// Creates the file; its owner, or "refused".
std::string MakeFile(const std::string& path) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) return "refused";
    close(fd);
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? std::to_string(st.st_uid) : "gone";
}

TEST(HomeUser, OnlyTheGuardingThreadActsAsTheUserAndOnlyWhileTheGuardLives) {
    ASSERT_EQ(geteuid(), 0u) << "this test needs root to take another user's identity";
    TempDir dir;
    std::string shared = dir.path() + "/shared";
    ASSERT_EQ(chmod(dir.path().c_str(), 0755) | mkdir(shared.c_str(), 0777) | chmod(shared.c_str(), 0777), 0);
    // A thread that exists before the guard (a new one would inherit the guarding thread's identity).
    std::promise<void> go;
    std::string otherThread;
    std::thread other([&, started = go.get_future()]() mutable {
        started.wait();
        otherThread = MakeFile(shared + "/other-thread");
    });
    platform::SetHomeUser(kNobody);
    {
        platform::AsHomeUser asUser;
        ASSERT_TRUE(asUser.Active());
        EXPECT_EQ(MakeFile(dir.path() + "/root-only"), "refused");
        EXPECT_EQ(MakeFile(shared + "/mine"), "65534");
        go.set_value();
        other.join();
        EXPECT_EQ(otherThread, "0");
        { platform::AsHomeUser inner; }
        EXPECT_EQ(MakeFile(shared + "/after-inner"), "65534") << "an inner guard keeps the identity";
    }
    EXPECT_EQ(MakeFile(dir.path() + "/root-only"), "0");
    // A user without an account gives no identity to act with.
    platform::SetHomeUser(3999999);
    EXPECT_FALSE(platform::AsHomeUser().Active());
    platform::SetHomeUser(0);
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

TEST(PropertyList, ListsAreReadWholeAndHostileOnesRefused) {
    Value expanded("x");
    for (int i = 0; i < 3; ++i) expanded = Value(Array{expanded, expanded});
    EXPECT_EQ(platform::ParsePropertyList(SharedArrays(3)), expanded);
    EXPECT_EQ(platform::ParsePropertyList(SharedArrays(40)), std::nullopt);
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

TEST(SystemVersionFile, MapsReleasesToTheCappedNumber) {
    TempDir dir;
    std::string path = dir.path() + "/SystemVersion.plist";
    const std::pair<const char*, std::optional<std::uint32_t>> cases[] = {
        {"10.5.8", 0x1058},   {"10.6", 0x1060},           {"10.10.3", 0x1093},     {"10.15.7", 0x1097},
        {"11.2.1", 0x1099},   {"10.5.x", std::nullopt},   {"10.5x", std::nullopt}, {"ten", std::nullopt},
        {"10", std::nullopt}, {"10.5.8.1", std::nullopt}, {"10.-5", std::nullopt}};
    for (const auto& [version, number] : cases) {
        WritePlist(path, {{"ProductVersion", version}});
        auto parts = platform::ReadSystemVersionFile(path);
        EXPECT_EQ(parts ? platform::SystemVersionNumber(*parts) : std::nullopt, number) << version;
    }
    // Without the file the system counts as 10.15.0.
    auto missing = platform::ReadSystemVersionFile(dir.path() + "/none.plist");
    EXPECT_EQ(missing ? platform::SystemVersionNumber(*missing) : std::nullopt, 0x1090u);
}

}  // namespace
}  // namespace qvk::test
