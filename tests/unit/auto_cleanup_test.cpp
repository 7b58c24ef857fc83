// Where the watched application folder went: found through the watch's descriptor on real folders.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "framework/basic/auto_cleanup.h"
#include "test_support.h"

namespace qvk::test {
namespace {

// Installs "<folder>/Pkg.app/Launcher.app", watches "<folder>/Pkg.app" as the running Launcher
// would, moves it to `to` and asks whether it is trashed now.
struct Moved {
    bool trashed;
    std::optional<std::string> path;
};
Moved MoveAndAsk(const std::string& folder, const std::string& to) {
    std::string app = folder + "/Pkg.app";
    std::filesystem::create_directories(app + "/Launcher.app");
    FakeBundle bundle(app + "/Launcher.app");
    platform::Replace<platform::Bundle> useBundle(bundle);
    auto watch = std::make_shared<QVK_Framework_AutoCleanup>();
    EXPECT_TRUE(watch->init());
    std::filesystem::create_directories(std::filesystem::path(to).parent_path());
    std::filesystem::rename(app, to);
    Moved answer{};
    answer.trashed = watch->QVK_Framework_AutoCleanup_IsTrashedApp(&answer.path);
    return answer;
}

TEST(TrashedApp, AnAncestorNamedDotTrashInAnyCaseAndAtAnyDepthCountsAndNothingElse) {
    TempDir dir;
    const std::string& d = dir.path();
    struct Case {
        std::string to;
        bool trashed;
    };
    const Case cases[] = {
        {d + "/home/.Trash/Pkg.app", true},
        {d + "/home/.Trash/Old/Stuff/Pkg.app", true},
        {d + "/home/.trash/Pkg.app", true},
        {d + "/home/.TRASH/deep/Pkg.app", true},
        {d + "/Volumes/X/.Trashes/501/Pkg.app", false},
        {d + "/home/Trash/Pkg.app", false},
        {d + "/home/.Trash.old/Pkg.app", false},
        {d + "/home/Apps/.Trash", false},  // the folder's own name is not looked at
        {d + "/home/Apps/Elsewhere.app", false},
    };
    char before[PATH_MAX];
    ASSERT_TRUE(getcwd(before, sizeof before));
    int n = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.to);
        Moved answer = MoveAndAsk(d + "/install" + std::to_string(n++), c.to);
        EXPECT_EQ(answer.trashed, c.trashed);
        EXPECT_EQ(answer.path, c.to);
        char after[PATH_MAX];
        ASSERT_TRUE(getcwd(after, sizeof after));
        EXPECT_STREQ(after, before) << "the working directory is restored";
    }
}

TEST(TrashedApp, AFolderThatIsGoneHasNoPathAndIsNotTrashed) {
    TempDir dir;
    std::string app = dir.path() + "/Pkg.app";
    std::filesystem::create_directories(app + "/Launcher.app");
    FakeBundle bundle(app + "/Launcher.app");
    platform::Replace<platform::Bundle> useBundle(bundle);
    auto watch = std::make_shared<QVK_Framework_AutoCleanup>();
    ASSERT_TRUE(watch->init());
    std::filesystem::remove_all(app);
    std::optional<std::string> path = "unchanged";
    EXPECT_FALSE(watch->QVK_Framework_AutoCleanup_IsTrashedApp(&path));
    EXPECT_EQ(path, std::nullopt);
    EXPECT_FALSE(watch->QVK_Framework_AutoCleanup_IsTrashedApp(nullptr));
}

}  // namespace
}  // namespace qvk::test
