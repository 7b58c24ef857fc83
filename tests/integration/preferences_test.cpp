// Preference files on disk: the system network preferences with the writers' lock across
// processes, and a key removed from a user-defaults file; both rewritten atomically with their
// owner and mode, never through a link, never created for nothing.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "../unit/test_support.h"
#include "platform/linux/system_preferences_file.h"
#include "platform/preferences.h"

namespace qvk::test {
namespace {

class PreferenceFiles : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(geteuid(), 0u) << "this test needs root to give the files another owner";
        WritePlist(path_, {{"Sets", Dictionary{{"HOME", Dictionary{{"MODEM", Dictionary{}}}}}}});
    }
    std::unique_ptr<platform::SystemPreferences> Locked() {
        auto prefs = store_.Create("test");
        EXPECT_TRUE(prefs && prefs->Lock(true));
        return prefs;
    }

    TempDir dir_;
    std::string path_ = dir_.path() + "/preferences.plist";
    platform::SystemPreferencesFile store_{path_};
};

TEST_F(PreferenceFiles, TheLockWaitsForAnotherWritersCommitAndAStaleReferenceSavesNothing) {
    int locked[2], go[2];
    ASSERT_EQ(pipe(locked) | pipe(go), 0);
    auto prefs = store_.Create("test");
    auto stale = store_.Create("stale");
    ASSERT_TRUE(prefs && stale && stale->PathRemoveValue("/Sets/HOME"));
    pid_t child = fork();
    if (child == 0) {
        auto other = Locked();
        char c;
        bool ok = write(locked[1], "x", 1) == 1 && read(go[0], &c, 1) == 1;
        // Holds the lock a while, so the parent is blocked in its lock when this writer saves.
        usleep(200 * 1000);
        _exit(ok && other->PathSetValue("/Sets/HOME/OTHER", Dictionary{}) && other->CommitChanges() && other->Unlock()
                  ? 0
                  : 1);
    }
    char c;
    ASSERT_EQ(read(locked[0], &c, 1), 1);
    EXPECT_FALSE(prefs->Lock(false)) << "the other process holds the lock";
    ASSERT_EQ(write(go[1], "x", 1), 1);
    ASSERT_TRUE(prefs->Lock(true));
    EXPECT_FALSE(store_.Create("third")->Lock(false)) << "the lock went with the replaced file";
    // The other writer's change is seen and kept; this one's is added to it.
    ASSERT_TRUE(prefs->PathRemoveValue("/Sets/HOME/MODEM"));
    ASSERT_TRUE(prefs->CommitChanges() && prefs->Unlock());
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(platform::ReadPropertyList(path_),
              Value(Dictionary{{"Sets", Dictionary{{"HOME", Dictionary{{"OTHER", Dictionary{}}}}}}}));
    for (int fd : {locked[0], locked[1], go[0], go[1]}) close(fd);
    std::string newer = ReadFile(path_);
    EXPECT_FALSE(stale->Lock(true));
    EXPECT_FALSE(stale->CommitChanges());
    EXPECT_EQ(ReadFile(path_), newer);
}

TEST_F(PreferenceFiles, RewrittenFilesKeepOwnerAndModeAndLinksAndOtherFilesAreNeverFollowed) {
    ASSERT_EQ(chown(path_.c_str(), 4242, 4343) | chmod(path_.c_str(), 0640), 0);
    auto prefs = Locked();
    ASSERT_TRUE(prefs->PathSetValue("/Sets/WORK", Dictionary{}) && prefs->CommitChanges() && prefs->Unlock());
    EXPECT_EQ(OwnerAndMode(path_), "4242:4343 640");
    EXPECT_EQ(FolderNames(dir_.path()), (std::vector<std::string>{"preferences.plist", "preferences.plist-lock"}));
    // A link or a pipe at the lock's name is not opened, so nothing is created or changed at its target.
    std::filesystem::remove(path_ + "-lock");
    std::filesystem::create_symlink(dir_.path() + "/target", path_ + "-lock");
    EXPECT_FALSE(store_.Create("test")->Lock(true));
    EXPECT_FALSE(std::filesystem::exists(dir_.path() + "/target"));
    std::filesystem::remove(path_ + "-lock");
    ASSERT_EQ(mkfifo((path_ + "-lock").c_str(), 0600), 0);
    EXPECT_FALSE(store_.Create("test")->Lock(true));

    FakeHome home{dir_.path()};
    platform::Replace<platform::Home> useHome{home};
    auto remove = [](const std::string& domain) {
        platform::Use<platform::Preferences>().RemoveObjectForKey(domain, "gone");
    };
    remove("com.quorvik.Launcher");
    EXPECT_FALSE(std::filesystem::exists(dir_.path() + "/Library")) << "no file is made to remove a key";
    std::string launcher = dir_.path() + "/Library/Preferences/com.quorvik.Launcher.plist";
    WritePlist(launcher, {{"gone", Value(true)}, {"kept", Value("x")}});
    ASSERT_EQ(chown(launcher.c_str(), 65534, 65534) | chmod(launcher.c_str(), 0600), 0);
    remove("com.quorvik.Launcher");
    EXPECT_EQ(platform::ReadPropertyList(launcher), Value(Dictionary{{"kept", Value("x")}}));
    EXPECT_EQ(OwnerAndMode(launcher), "65534:65534 600");
    WritePlist(path_, {{"gone", Value(true)}});
    std::filesystem::create_symlink(path_, dir_.path() + "/Library/Preferences/linked.plist");
    remove("linked");
    EXPECT_EQ(platform::ReadPropertyList(path_), Value(Dictionary{{"gone", Value(true)}}));
    EXPECT_EQ(FolderNames(dir_.path() + "/Library/Preferences"),
              (std::vector<std::string>{"com.quorvik.Launcher.plist", "linked.plist"}));
}

}  // namespace
}  // namespace qvk::test
