// The system network preferences on a real property-list file: paths, the writers' lock across
// processes, and the atomic rewrite that keeps owner and mode.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "../unit/test_support.h"
#include "platform/linux/system_preferences_file.h"
#include "platform/property_list.h"

namespace qvk::test {
namespace {

using platform::SystemPreferences;
using platform::SystemPreferencesFile;

class SystemPreferencesFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        Dictionary ipv4{{"ServiceOrder", Array{"ETH", "MODEM"}}};
        Dictionary network{{"Global", Dictionary{{"IPv4", ipv4}}}, {"Service", Dictionary{{"MODEM", Dictionary{}}}}};
        Dictionary root{{"CurrentSet", "/Sets/HOME"},
                        {"NetworkServices", Dictionary{}},
                        {"Sets", Dictionary{{"HOME", Dictionary{{"Network", network}, {"Name", "Home"}}}}}};
        WritePlist(path_, root);
    }
    std::unique_ptr<SystemPreferences> Open() {
        auto prefs = store_.Create("test");
        EXPECT_TRUE(prefs);
        return prefs;
    }
    Value Saved() { return platform::ReadPropertyList(path_).value_or(Value()); }

    TempDir dir_;
    std::string path_ = dir_.path() + "/preferences.plist";
    SystemPreferencesFile store_{path_};
};

TEST_F(SystemPreferencesFileTest, PathsGoOnlyThroughDictionariesFromTheRoot) {
    auto prefs = Open();
    ASSERT_TRUE(prefs);
    EXPECT_EQ(prefs->PathGetValue("/Sets/HOME/Name"), std::nullopt);
    EXPECT_EQ(prefs->PathGetValue("Sets/HOME"), std::nullopt);
    EXPECT_FALSE(prefs->PathSetValue("/Sets/HOME/Name/Inner", Dictionary{}));
    EXPECT_FALSE(prefs->PathRemoveValue("/Sets/NONE/Network"));
    EXPECT_FALSE(prefs->PathRemoveValue("/"));
    // Setting creates the dictionaries on the way.
    EXPECT_TRUE(prefs->PathSetValue("/Sets/WORK/Network/Global/IPv4", Dictionary{{"ServiceOrder", Array{}}}));
    EXPECT_EQ(prefs->PathGetValue("/Sets/WORK/Network/Global")->size(), 1u);
    EXPECT_EQ(prefs->GetValue("Sets")->AsDictionary()->size(), 2u);
}

TEST_F(SystemPreferencesFileTest, TheRewrittenFileKeepsOwnerAndModeAndLeavesNoTemporaryFile) {
    ASSERT_EQ(geteuid(), 0u) << "this test needs root to give the file another owner";
    ASSERT_EQ(chown(path_.c_str(), 4242, 4343), 0);
    ASSERT_EQ(chmod(path_.c_str(), 0640), 0);
    struct stat old {};
    ASSERT_EQ(stat(path_.c_str(), &old), 0);

    auto prefs = Open();
    ASSERT_TRUE(prefs && prefs->Lock(true));
    ASSERT_TRUE(prefs->PathSetValue("/Sets/HOME/Network/Global/IPv4", Dictionary{{"ServiceOrder", Array{"ETH"}}}));
    ASSERT_TRUE(prefs->CommitChanges());
    ASSERT_TRUE(prefs->Unlock());

    struct stat now {};
    ASSERT_EQ(lstat(path_.c_str(), &now), 0);
    EXPECT_NE(now.st_ino, old.st_ino) << "the file was written in place, not replaced";
    EXPECT_EQ(OwnerAndMode(path_), "4242:4343 640");
    EXPECT_EQ(Saved()["Sets"]["HOME"]["Network"]["Global"]["IPv4"]["ServiceOrder"], Value(Array{"ETH"}));
    EXPECT_EQ(FolderNames(dir_.path()), (std::vector<std::string>{"preferences.plist", "preferences.plist-lock"}));
}

TEST_F(SystemPreferencesFileTest, LinksAndOtherFilesAreNeverFollowed) {
    std::string target = dir_.path() + "/elsewhere.plist";
    std::string before = ReadFile(path_);
    std::filesystem::rename(path_, target);
    std::filesystem::create_symlink(target, path_);
    EXPECT_EQ(store_.Create("test"), nullptr);

    std::filesystem::remove(path_);
    std::filesystem::rename(target, path_);
    auto prefs = Open();
    ASSERT_TRUE(prefs);
    // A link at the lock's name is not opened, so nothing is created or changed at its target.
    std::filesystem::create_symlink(target, path_ + "-lock");
    EXPECT_FALSE(prefs->Lock(true));
    EXPECT_FALSE(std::filesystem::exists(target));
    std::filesystem::remove(path_ + "-lock");
    ASSERT_EQ(mkfifo((path_ + "-lock").c_str(), 0600), 0);
    EXPECT_FALSE(prefs->Lock(true));
    std::filesystem::remove(path_ + "-lock");
    EXPECT_TRUE(prefs->Lock(true));
    EXPECT_FALSE(prefs->Lock(true)) << "locked twice by one reference";
    EXPECT_EQ(ReadFile(path_), before);
}

// One end of a pipe per direction, for stepping a child process.
struct Pipe {
    int fds[2] = {-1, -1};
    Pipe() { EXPECT_EQ(pipe(fds), 0); }
    ~Pipe() {
        for (int fd : fds)
            if (fd >= 0) close(fd);
    }
    bool Send() { return write(fds[1], "x", 1) == 1; }
    bool Receive() {
        char c;
        return read(fds[0], &c, 1) == 1;
    }
};

TEST_F(SystemPreferencesFileTest, TheLockWaitsForAnotherWritersCommit) {
    Pipe locked, go;
    // This reference reads the preferences before the other writer changes them.
    auto prefs = Open();
    ASSERT_TRUE(prefs);
    std::string committed = dir_.path() + "/child-committed";

    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        auto other = store_.Create("other");
        bool ok = other && other->Lock(true) && locked.Send() && go.Receive();
        // Hold the lock a while, so the parent is blocked in its lock when this writer saves.
        usleep(200 * 1000);
        ok = ok && other->PathSetValue("/Sets/HOME/Network/Service/OTHER", Dictionary{}) && other->CommitChanges();
        ok = ok && close(open(committed.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600)) == 0;
        _exit(ok && other->Unlock() ? 0 : 1);
    }
    ASSERT_TRUE(locked.Receive());
    EXPECT_FALSE(prefs->Lock(false)) << "the other process holds the lock";
    ASSERT_TRUE(go.Send());
    ASSERT_TRUE(prefs->Lock(true));
    EXPECT_TRUE(std::filesystem::exists(committed)) << "the lock was had before the other writer was done";
    // The other writer replaced the file; a third one must still find the lock taken.
    auto third = Open();
    ASSERT_TRUE(third);
    EXPECT_FALSE(third->Lock(false)) << "the lock went with the replaced file";

    // The other writer's change is seen and kept; this one's is added to it.
    EXPECT_TRUE(prefs->PathGetValue("/Sets/HOME/Network/Service/OTHER"));
    ASSERT_TRUE(prefs->PathRemoveValue("/Sets/HOME/Network/Service/MODEM"));
    ASSERT_TRUE(prefs->CommitChanges());
    prefs->Unlock();
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(Saved()["Sets"]["HOME"]["Network"]["Service"], Value(Dictionary{{"OTHER", Dictionary{}}}));
}

TEST_F(SystemPreferencesFileTest, ChangesMadeOnAnOlderVersionAreNotSavedOverANewerOne) {
    auto stale = Open();
    ASSERT_TRUE(stale);
    ASSERT_TRUE(stale->PathRemoveValue("/Sets/HOME/Network/Service/MODEM"));

    auto other = Open();
    ASSERT_TRUE(other && other->Lock(true));
    ASSERT_TRUE(other->PathSetValue("/Sets/HOME/Network/Service/OTHER", Dictionary{}));
    ASSERT_TRUE(other->CommitChanges());
    ASSERT_TRUE(other->Unlock());
    std::string newer = ReadFile(path_);

    EXPECT_FALSE(stale->Lock(true));
    EXPECT_FALSE(stale->CommitChanges());
    EXPECT_EQ(ReadFile(path_), newer);
}

}  // namespace
}  // namespace qvk::test
