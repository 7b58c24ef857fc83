// Preference files on disk: the system network preferences with the writers' lock across
// processes, and a key removed from a user-defaults file in place with its owner and mode; never
// through a link, never created for nothing.

#include "platform/preferences.h"
#include "../unit/test_support.h"
#include "platform/linux/system_preferences_file.h"

namespace qvk::test {
namespace {

Dictionary Sets(const Dictionary& home) { return {{"Sets", Dictionary{{"HOME", home}}}}; }

TEST(SystemPreferencesFile, TheLockWaitsForAnotherWritersCommitAStaleReferenceSavesNothingAndNoLinkIsFollowed) {
    TempDir dir;
    std::string path = dir.path() + "/preferences.plist";
    WritePlist(path, Sets({{"MODEM", Dictionary{}}}));
    platform::SystemPreferencesFile store{path};
    int locked[2], go[2];
    ASSERT_EQ(pipe(locked) | pipe(go), 0);
    auto prefs = store.Create("test"), stale = store.Create("stale");
    ASSERT_TRUE(prefs && stale && stale->PathRemoveValue("/Sets/HOME"));
    pid_t child = fork();
    if (child == 0) {
        auto other = store.Create("other");
        char c;
        bool ok = other && other->Lock(true) && write(locked[1], "x", 1) == 1 && read(go[0], &c, 1) == 1;
        // Holds the lock a while, so the parent is blocked in its lock when this writer saves.
        usleep(200 * 1000);
        ok = ok && other->PathSetValue("/Sets/HOME/OTHER", Dictionary{}) && other->CommitChanges() && other->Unlock();
        _exit(ok ? 0 : 1);
    }
    char c;
    ASSERT_EQ(read(locked[0], &c, 1), 1);
    EXPECT_FALSE(prefs->Lock(false)) << "the other process holds the lock";
    ASSERT_EQ(write(go[1], "x", 1), 1);
    ASSERT_TRUE(prefs->Lock(true));
    EXPECT_FALSE(store.Create("third")->Lock(false)) << "the lock went with the replaced file";
    ASSERT_TRUE(prefs->PathRemoveValue("/Sets/HOME/MODEM") && prefs->CommitChanges() && prefs->Unlock());
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    for (int fd : {locked[0], locked[1], go[0], go[1]}) close(fd);
    // This writer saw the other's change and kept it; the stale reference saves nothing.
    EXPECT_FALSE(stale->Lock(true) || stale->CommitChanges());
    EXPECT_EQ(platform::ReadPropertyList(path), Value(Sets({{"OTHER", Dictionary{}}})));
    // A link or a pipe at the lock's name is not opened, so nothing is created or changed at its target.
    std::filesystem::remove(path + "-lock");
    std::filesystem::create_symlink(dir.path() + "/target", path + "-lock");
    EXPECT_FALSE(store.Create("test")->Lock(true));
    std::filesystem::remove(path + "-lock");
    ASSERT_EQ(mkfifo((path + "-lock").c_str(), 0600), 0);
    EXPECT_FALSE(store.Create("test")->Lock(true));
    EXPECT_FALSE(std::filesystem::exists(dir.path() + "/target"));
    // A value that is no dictionary is not a folder of values.
    std::filesystem::remove(path + "-lock");
    WritePlist(path, Sets({{"MODEM", "text"}}));
    EXPECT_FALSE(store.Create("test")->PathSetValue("/Sets/HOME/MODEM/SPEED", Dictionary{}));
}

TEST(UserDefaults, AKeyIsRemovedInPlaceKeepingOwnerAndModeAndNoFileIsMadeOrFollowed) {
    ASSERT_EQ(geteuid(), 0u) << "this test needs root to give the file another owner";
    TempDir dir;
    FakeHome home{dir.path()};
    platform::Replace<platform::Home> useHome{home};
    auto& prefs = platform::Use<platform::Preferences>();
    prefs.RemoveObjectForKey("com.quorvik.Launcher", "gone");
    EXPECT_FALSE(std::filesystem::exists(dir.path() + "/Library")) << "no file is made to remove a key";
    std::string folder = dir.path() + "/Library/Preferences", launcher = folder + "/com.quorvik.Launcher.plist",
                outside = dir.path() + "/outside.plist";
    WritePlist(launcher, {{"gone", Value(true)}, {"kept", Value("x")}});
    ASSERT_EQ(chown(launcher.c_str(), 65534, 65534) | chmod(launcher.c_str(), 0600), 0);
    WritePlist(outside, {{"gone", Value(true)}});
    std::filesystem::create_symlink(outside, folder + "/linked.plist");
    prefs.RemoveObjectForKey("com.quorvik.Launcher", "gone");
    prefs.RemoveObjectForKey("linked", "gone");
    EXPECT_EQ(platform::ReadPropertyList(launcher), Value(Dictionary{{"kept", Value("x")}}));
    EXPECT_EQ(OwnerAndMode(launcher), "65534:65534 600");
    EXPECT_EQ(platform::ReadPropertyList(outside), Value(Dictionary{{"gone", Value(true)}}));
    EXPECT_EQ(FolderNames(folder), (std::vector<std::string>{"com.quorvik.Launcher.plist", "linked.plist"}));
}

}  // namespace
}  // namespace qvk::test
