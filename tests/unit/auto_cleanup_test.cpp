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
    const std::string& d = dir.path();
    const std::pair<std::string, bool> cases[] = {
        {d + "/home/.Trash/Pkg.app", true},
        {d + "/home/.TRASH/Old/Stuff/Pkg.app", true},
        {d + "/Volumes/X/.Trashes/501/Pkg.app", false},
        {d + "/home/.Trash.old/Pkg.app", false},
        {d + "/home/Apps/.Trash", false},  // the folder's own name is not looked at
    };
    const std::filesystem::path before = std::filesystem::current_path();
    int n = 0;
    for (const auto& [to, trashed] : cases) {
        SCOPED_TRACE(to);
        std::string app = d + "/install" + std::to_string(n++) + "/Pkg.app";
        std::filesystem::create_directories(app + "/Launcher.app");
        FakeBundle bundle(app + "/Launcher.app");
        platform::Replace<platform::Bundle> useBundle(bundle);
        auto watch = std::make_shared<QVK_Framework_AutoCleanup>();
        ASSERT_TRUE(watch->init());
        std::filesystem::create_directories(std::filesystem::path(to).parent_path());
        std::filesystem::rename(app, to);
        std::optional<std::string> path;
        EXPECT_EQ(watch->QVK_Framework_AutoCleanup_IsTrashedApp(&path), trashed);
        EXPECT_EQ(path, to);
        EXPECT_EQ(std::filesystem::current_path(), before) << "the working directory is restored";
    }
}

}  // namespace
}  // namespace qvk::test
