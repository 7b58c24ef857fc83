// Files on the real kernel: the home user's file-system identity taken by one thread, property
// lists (binary ones from the fuzzing corpus) and the system version file read through the library.

#include <future>
#include <thread>

#include "../unit/test_support.h"
#include "platform/home_user.h"
#include "platform/linux/system_version_file.h"
#include "platform/unique_fd.h"

namespace qvk::test {
namespace {

using namespace std::string_literals;

constexpr unsigned kNobody = 65534;

// Creates the file; its owner and mode, or "refused".
std::string MakeFile(const std::string& path) {
    platform::UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    return fd.get() < 0 ? "refused" : OwnerAndMode(path);
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
        EXPECT_EQ(MakeFile(shared + "/mine"), "65534:65534 600");
        go.set_value();
        other.join();
        EXPECT_EQ(otherThread, "0:0 600");
        { platform::AsHomeUser inner; }
        EXPECT_EQ(MakeFile(shared + "/after-inner"), "65534:65534 600") << "an inner guard keeps the identity";
    }
    EXPECT_EQ(MakeFile(dir.path() + "/root-only"), "0:0 600");
    // A user without an account gives no identity to act with.
    platform::SetHomeUser(3999999);
    EXPECT_FALSE(platform::AsHomeUser().Active());
    platform::SetHomeUser(0);
}

TEST(PropertyList, SharedObjectsAreCopiedWithinALimitANulEndsATextAndAPipeIsNoList) {
    // Arrays each referring twice to the one below, over the text "x": 2^12 texts, and 2^29.
    std::string samples = std::filesystem::path(__FILE__).parent_path().string() + "/../../fuzz/corpus/property_list/";
    Value expanded("x");
    for (int i = 0; i < 12; ++i) expanded = Value(Array{expanded, expanded});
    EXPECT_EQ(platform::ReadPropertyList(samples + "shared.bplist"), expanded);
    EXPECT_EQ(platform::ReadPropertyList(samples + "bomb.bplist"), std::nullopt);
    TempDir dir;
    WriteFile(dir.path() + "/nul.plist", "<plist><dict><key>k</key><string>a\0b</string></dict></plist>"s);
    EXPECT_EQ(platform::ReadPropertyList(dir.path() + "/nul.plist"), Value(Dictionary{{"k", Value("a")}}));
    ASSERT_EQ(mkfifo((dir.path() + "/pipe.plist").c_str(), 0600), 0);
    EXPECT_EQ(platform::ReadPropertyList(dir.path() + "/pipe.plist"), std::nullopt);
}

TEST(SystemVersionFile, MapsReleasesToTheCappedNumber) {
    TempDir dir;
    // Without the file the system counts as 10.15.0.
    const std::pair<const char*, std::optional<std::uint32_t>> cases[] = {
        {nullptr, 0x1090},     {"10.5.8", 0x1058},   {"10.6", 0x1060},           {"10.10.3", 0x1093},
        {"10.15.7", 0x1097},   {"11.2.1", 0x1099},   {"10.5.x", std::nullopt},   {"10.5x", std::nullopt},
        {"ten", std::nullopt}, {"10", std::nullopt}, {"10.5.8.1", std::nullopt}, {"10.-5", std::nullopt}};
    for (const auto& [version, number] : cases) {
        std::string path = dir.path() + "/" + (version ? version : "none") + ".plist";
        if (version) WritePlist(path, {{"ProductVersion", version}});
        auto parts = platform::ReadSystemVersionFile(path);
        EXPECT_EQ(parts ? platform::SystemVersionNumber(*parts) : std::nullopt, number) << path;
    }
}

}  // namespace
}  // namespace qvk::test
