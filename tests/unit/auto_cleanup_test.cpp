// Whether the watched application folder is in the Trash now: asked through the watch's
// descriptor after real moves.
#include <gtest/gtest.h>

#include <filesystem>

#include "framework/basic/auto_cleanup.h"
#include "test_support.h"

namespace qvk::test {
namespace {

TEST(TrashedApp, AnAncestorNamedDotTrashInAnyCaseAndAtAnyDepthCountsAndNothingElse) {
    TempDir dir;
    const std::filesystem::path before = std::filesystem::current_path();
    // The first two are in the Trash; the folder's own name is not looked at.
    const char* places[] = {"home/.Trash/Pkg.app", "home/.TRASH/Old/Stuff/Pkg.app", "Volumes/X/.Trashes/501/Pkg.app",
                            "home/.Trash.old/Pkg.app", "home/Apps/.Trash"};
    for (int i = 0; i < 5; ++i) {
        std::string to = dir.path() + "/" + places[i];
        std::string app = dir.path() + "/install/Pkg.app";
        std::filesystem::create_directories(app + "/Launcher.app");
        FakeBundle bundle(app + "/Launcher.app");
        platform::Replace<platform::Bundle> useBundle(bundle);
        auto watch = std::make_shared<QVK_Framework_AutoCleanup>();
        ASSERT_TRUE(watch->init());
        std::filesystem::create_directories(std::filesystem::path(to).parent_path());
        std::filesystem::rename(app, to);
        std::optional<std::string> path;
        EXPECT_EQ(watch->QVK_Framework_AutoCleanup_IsTrashedApp(&path), i < 2) << to;
        EXPECT_EQ(path, to);
        EXPECT_EQ(std::filesystem::current_path(), before) << "the working directory is restored";
    }
}

}  // namespace
}  // namespace qvk::test
