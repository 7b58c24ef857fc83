#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "launcher/delete_app.h"
#include "test_support.h"
#include "uninstall_fakes.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class DeleteTest : public ::testing::Test {
protected:
    std::string At(const std::string& relative) { return folder_.path() + "/" + relative; }
    void Link(const std::string& target, const std::string& relative) {
        ASSERT_EQ(symlink(target.c_str(), At(relative).c_str()), 0) << relative;
    }

    TempDir folder_;
    Journal journal_;
    JournalLogger logger_{journal_};
};

TEST_F(DeleteTest, ATreeGoesWithEveryFolderLogged) {
    WriteFile(At("tree/a/b/file"), "x");
    WriteFile(At("tree/a/.hidden"), "x");
    WriteFile(At("tree/top"), "x");
    std::filesystem::create_directories(At("tree/empty"));

    EXPECT_EQ(Launcher_Delete(At("tree")), 0);

    EXPECT_FALSE(Exists(At("tree")));
    ASSERT_FALSE(journal_.empty());
    EXPECT_EQ(journal_.front(), "Launcher_Delete: " + At("tree"));
    EXPECT_THAT(journal_,
                UnorderedElementsAre("Launcher_Delete: " + At("tree"), "Launcher_Delete: " + At("tree/a"),
                                     "Launcher_Delete: " + At("tree/a/b"), "Launcher_Delete: " + At("tree/empty")));
}

TEST_F(DeleteTest, LinksGoThemselvesAndWhatTheyPointToStays) {
    WriteFile(At("keep/inside/file"), "x");
    WriteFile(At("tree/own"), "x");
    Link(At("keep"), "tree/folder-link");
    Link(At("keep/inside/file"), "tree/file-link");
    Link(At("keep"), "top-link");

    EXPECT_EQ(Launcher_Delete(At("top-link")), 0);
    EXPECT_EQ(Launcher_Delete(At("tree")), 0);

    EXPECT_FALSE(Exists(At("top-link")));
    EXPECT_FALSE(Exists(At("tree")));
    EXPECT_EQ(ReadFile(At("keep/inside/file")), "x");
    // A link to a folder is no folder: nothing is logged for it.
    EXPECT_THAT(journal_, ElementsAre("Launcher_Delete: " + At("tree")));
}

TEST_F(DeleteTest, AMissingPathFailsQuietlyAndAFileGivesItsRemovalsResult) {
    errno = 0;
    EXPECT_EQ(Launcher_Delete(At("missing")), -1);
    EXPECT_EQ(errno, ENOENT);
    WriteFile(At("file"), "x");
    EXPECT_EQ(Launcher_Delete(At("file")), 0);
    EXPECT_FALSE(Exists(At("file")));
    EXPECT_THAT(journal_, IsEmpty());
}

TEST_F(DeleteTest, DeleteAppRemovesTheFolderHoldingTheLauncher) {
    const std::string app = At("Quorvik.app");
    WriteFile(app + "/Launcher.app/Contents/MacOS/Launcher", "x");
    WriteFile(app + "/Contents/Info.plist", "x");
    WriteFile(At("Beside.app/Contents/Info.plist"), "x");
    FakeBundle bundle(app + "/Launcher.app");
    platform::Replace<platform::Bundle> useBundle(bundle);

    Launcher_DeleteApp();

    EXPECT_FALSE(Exists(app));
    EXPECT_TRUE(Exists(At("Beside.app/Contents/Info.plist")));
    ASSERT_FALSE(journal_.empty());
    EXPECT_EQ(journal_.front(), "Launcher_DeleteApp: " + app);
}

}  // namespace
}  // namespace qvk::test
