#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "launcher/kill_app.h"
#include "test_support.h"
#include "uninstall_fakes.h"

namespace qvk::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// A "ps" first on the search path that notes its calls and prints a listing; the application
// folder lies in the same temporary folder. The listing is made, and `check` runs, in the process
// that sees that "ps".
class KillAppTest : public ::testing::Test {
protected:
    template <class Listing, class Check>
    void Run(const std::string& app, Listing listing, Check check) {
        WithSuperUserTool(
            "ps", "#!/bin/sh\necho \"$*\" >>\"" + folder_.path() + "/calls\"\ncat \"" + folder_.path() + "/listing\"\n",
            [&] {
                WriteFile(folder_.path() + "/listing", listing());
                FakeBundle bundle(app + "/Launcher.app");
                platform::Replace<platform::Bundle> useBundle(bundle);
                Launcher_KillApp();
                check();
            });
    }
    Journal Kills() {
        return Only(journal_, [](const std::string& l) { return l.starts_with("kill "); });
    }

    TempDir folder_;
    Journal journal_;
    JournalLogger logger_{journal_};
    JournalSignals signals_{journal_};
    platform::Replace<platform::ProcessSignals> useSignals_{signals_};
};

TEST_F(KillAppTest, StopsTheApplicationsProcessesButNeverItselfUntilALineWithoutANumber) {
    const std::string app = folder_.path() + "/Quorvik Mobile.app";
    Run(
        app,
        [&] {
            return Format(
                "  PID COMM\n"
                "%5d %@/Launcher.app/Contents/MacOS/Launcher\n"
                " 4242 %@/Contents/MacOS/Quorvik Mobile\n"
                "   77 /usr/sbin/cron\n"
                " 4243 %@/Contents/Helper\n"
                "  abc %@/Contents/Stray\n"
                " 4244 %@/Contents/Late\n",
                getpid(), app, app, app, app);
        },
        [&] {
            EXPECT_THAT(Kills(), ElementsAre("kill 4242 15", "kill 4243 15"));
            EXPECT_THAT(journal_,
                        Contains(testing::StartsWith("QVK_Framework_GetCommandOutput: ps -A -o pid -o comm | grep \"" +
                                                     app + "\" | sed -e \"s/[ ]*\\([0-9][0-9]*\\).*/\\1/g\" -> ")));
        });
}

TEST_F(KillAppTest, AnApplicationFolderThatCannotBeQuotedRunsNoCommand) {
    const std::string app = folder_.path() + "/Quorvik$(touch owned).app";
    Run(
        app, [&] { return Format(" 4242 %@/Contents/MacOS/Quorvik\n", app); },
        [&] {
            EXPECT_THAT(Kills(), IsEmpty());
            EXPECT_FALSE(Exists(folder_.path() + "/calls"));
            EXPECT_THAT(journal_, ElementsAre("Launcher_KillApp (Errors): Not looking for processes of \"" + app +
                                              "\": the path cannot be quoted"));
        });
}

}  // namespace
}  // namespace qvk::test
