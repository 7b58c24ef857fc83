// The alert panel against real zenity under Xvfb and a real pseudo-terminal.
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

#include "desktop_session.h"
#include "platform/alert_panel.h"
#include "platform/service.h"

namespace qvk::test {
namespace {

using platform::AlertAnswer;
using platform::AlertPanel;
using platform::AlertReturn;
using ::testing::ElementsAre;

constexpr unsigned kNobody = 65534;

// "default asked zenity": the button, whether anyone was asked, and how.
std::string Describe(const AlertAnswer& answer) {
    return std::string(answer.button == AlertReturn::Alternate ? "alternate" : "default") + " " +
           (answer.asked ? "asked" : "not asked") + " " + answer.detail;
}

class AlertPanelOnDisplay : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(geteuid(), 0u) << "this test needs root to show panels as another user";
        ASSERT_FALSE(display_.name().empty());
        setenv("DISPLAY", display_.name().c_str(), 1);
        unsetenv("WAYLAND_DISPLAY");
        setenv("NO_AT_BRIDGE", "1", 1);
    }
    void TearDown() override { unsetenv("DISPLAY"); }

    struct Outcome {
        AlertAnswer answer;
        std::vector<unsigned> uids;
        std::vector<std::string> arguments;
    };
    // Shows the panel, notes who shows it and how, then types the keys.
    Outcome Show(std::uint32_t user, const std::string& title, const std::optional<std::string>& alternate,
                 std::vector<std::string> keys) {
        AlertPanel& panel = platform::Use<AlertPanel>();
        panel.SharedApplication(user);
        auto answer = std::async(std::launch::async, [&] {
            return panel.RunAlertPanel(title, "Remove <b>all</b> & everything?", "No", alternate);
        });
        Outcome outcome;
        std::string window = display_.WaitForWindow(title);
        EXPECT_FALSE(window.empty()) << "no window titled " << title;
        if (!window.empty()) {
            pid_t pid = display_.WindowProcess(window);
            outcome.uids = UserIdsOf(pid);
            outcome.arguments = ArgumentsOf(pid);
            display_.PressKeys(window, std::move(keys));
        }
        if (answer.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
            ADD_FAILURE() << "the panel did not close";
            StopProcessesWithArgument("--title=" + title);
        }
        outcome.answer = answer.get();
        return outcome;
    }

    VirtualDisplay display_;
};

TEST_F(AlertPanelOnDisplay, QuestionRunsAsTheUserWithItsTextsVerbatimReturnSaysNoAndTheOtherButtonYes) {
    const std::string title = "Quorvik \"$(touch /tmp/qvk-owned)\" `id` \\ ;";
    Outcome outcome = Show(kNobody, title, "Yes", {"Return"});
    EXPECT_EQ(Describe(outcome.answer), "default asked zenity");
    EXPECT_THAT(outcome.uids, ElementsAre(kNobody, kNobody, kNobody, kNobody));
    ASSERT_FALSE(outcome.arguments.empty());
    EXPECT_THAT(std::vector<std::string>(outcome.arguments.begin() + 1, outcome.arguments.end()),
                ElementsAre("--question", "--no-markup", "--default-cancel", "--title=" + title,
                            "--text=Remove <b>all</b> & everything?", "--ok-label=Yes", "--cancel-label=No"));
    EXPECT_NE(access("/tmp/qvk-owned", F_OK), 0);

    // The other button is the alternate answer.
    EXPECT_EQ(Describe(Show(kNobody, "Quorvik alternate", "Yes", {"Tab", "Return"}).answer), "alternate asked zenity");
}

TEST_F(AlertPanelOnDisplay, AMessageHasOneButtonThatReturnPresses) {
    Outcome outcome = Show(kNobody, "Quorvik message", std::nullopt, {"Return"});
    EXPECT_EQ(Describe(outcome.answer), "default asked zenity");
    ASSERT_FALSE(outcome.arguments.empty());
    EXPECT_THAT(std::vector<std::string>(outcome.arguments.begin() + 1, outcome.arguments.end()),
                ElementsAre("--info", "--no-markup", "--title=Quorvik message",
                            "--text=Remove <b>all</b> & everything?", "--ok-label=No"));
}

TEST_F(AlertPanelOnDisplay, AUserWithoutAccountIsNotAskedAtAll) {
    AlertPanel& panel = platform::Use<AlertPanel>();
    panel.SharedApplication(3999999999u);
    EXPECT_EQ(Describe(panel.RunAlertPanel("Quorvik nobody", "?", "No", std::string("Yes"))),
              "default not asked zenity: could not start the panel: No such process");
}

// What a panel did in a child process of its own session, with a pseudo-terminal as its
// controlling terminal (or none).
struct TerminalRun {
    std::string screen;
    std::string result;
};

TerminalRun RunOnTerminal(bool withTerminal, std::uint32_t user, const std::optional<std::string>& alternate,
                          const std::string& typed) {
    TerminalRun run;
    int results[2], master = -1;
    if (pipe(results) != 0) return run;
    pid_t pid = withTerminal ? forkpty(&master, nullptr, nullptr, nullptr) : fork();
    if (pid < 0) {
        ADD_FAILURE() << "no child with a pseudo-terminal";
        return run;
    }
    if (pid == 0) {
        close(results[0]);
        if (!withTerminal) setsid();
        unsetenv("DISPLAY");
        unsetenv("WAYLAND_DISPLAY");
        AlertPanel& panel = platform::Use<AlertPanel>();
        panel.SharedApplication(user);
        std::string text = Describe(
            panel.RunAlertPanel("Quorvik\x1b[2J", "Do you really want to deinstall Quorvik?", "No", alternate));
        ssize_t ignored = write(results[1], text.data(), text.size());
        (void)ignored;
        _exit(0);
    }
    close(results[1]);
    if (withTerminal) {
        // Read the prompt up to its end (waiting 20 s at most for each piece), then answer.
        char buf[512];
        pollfd ready{master, POLLIN, 0};
        for (ssize_t n; run.screen.find("No) ") == std::string::npos && poll(&ready, 1, 20000) > 0 &&
                        (n = read(master, buf, sizeof buf)) > 0;)
            run.screen.append(buf, static_cast<std::size_t>(n));
        ssize_t ignored = write(master, typed.data(), typed.size());
        (void)ignored;
    }
    char buf[256];
    for (ssize_t n; (n = read(results[0], buf, sizeof buf)) > 0;) run.result.append(buf, static_cast<std::size_t>(n));
    close(results[0]);
    waitpid(pid, nullptr, 0);
    if (master >= 0) close(master);
    return run;
}

TEST(AlertPanelOnTerminal, TakesOnlyTheAlternateLabelAsYes) {
    TerminalRun yes = RunOnTerminal(true, kNobody, "Yes", "  yes \n");
    EXPECT_EQ(yes.result, "alternate asked terminal");
    // The escape sequence in the title reaches the terminal defused.
    EXPECT_THAT(yes.screen, ::testing::HasSubstr("Quorvik?[2J"));
    EXPECT_THAT(yes.screen, ::testing::HasSubstr("Do you really want to deinstall Quorvik?"));
    EXPECT_THAT(yes.screen, ::testing::HasSubstr("(Yes / No, Return: No) "));

    EXPECT_EQ(RunOnTerminal(true, kNobody, "Yes", "\n").result, "default asked terminal");
    EXPECT_EQ(RunOnTerminal(true, kNobody, "Yes", "y\n").result, "default asked terminal");
    EXPECT_EQ(RunOnTerminal(true, kNobody, "Yes", std::string(300, 'x') + "Yes\n").result, "default asked terminal");
    EXPECT_EQ(RunOnTerminal(true, 0, std::nullopt, "\n").result, "default asked terminal");
}

TEST(AlertPanelOnTerminal, NoDisplayAndNoTerminalGivesTheDefault) {
    EXPECT_EQ(RunOnTerminal(false, 0, "Yes", "").result, "default not asked no display and no terminal");
}

}  // namespace
}  // namespace qvk::test
