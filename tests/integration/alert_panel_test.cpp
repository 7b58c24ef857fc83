// The alert panel against real zenity under Xvfb and on a real pseudo-terminal.
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <future>

#include "../unit/test_support.h"
#include "platform/alert_panel.h"
#include "platform/unique_fd.h"

namespace qvk::test {
namespace {

using platform::AlertAnswer;
using platform::AlertPanel;
using ::testing::ElementsAre;

constexpr unsigned kNobody = 65534;

// "default asked zenity": the button, whether anyone was asked, and how.
std::string Describe(const AlertAnswer& answer) {
    return std::string(answer.button == platform::AlertReturn::Alternate ? "alternate" : "default") + " " +
           (answer.asked ? "asked" : "not asked") + " " + answer.detail;
}

// Starts `args`; gives the pid and the read end of its standard output.
pid_t Start(std::vector<std::string> args, platform::UniqueFd& output) {
    int out[2];
    if (pipe(out) != 0) return -1;
    output.reset(out[0]);
    platform::UniqueFd writeEnd(out[1]);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(writeEnd.get(), 1);
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

// xdotool's first line of output on the current display, or empty when it fails.
std::string Xdotool(std::vector<std::string> args) {
    args.insert(args.begin(), {"timeout", "20", "xdotool"});
    platform::UniqueFd out;
    pid_t pid = Start(args, out);
    std::string text;
    char buf[256];
    for (ssize_t n; (n = read(out.get(), buf, sizeof buf)) > 0;) text.append(buf, static_cast<std::size_t>(n));
    int status = 0;
    waitpid(pid, &status, 0);
    return status == 0 ? text.substr(0, text.find('\n')) : "";
}

// A process's real user id, and its arguments.
std::pair<std::string, std::vector<std::string>> Process(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status"),
        cmdline("/proc/" + std::to_string(pid) + "/cmdline");
    std::pair<std::string, std::vector<std::string>> out;
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("Uid:")) out.first = line;
    for (std::string arg; std::getline(cmdline, arg, '\0');) out.second.push_back(arg);
    return out;
}

class AlertPanelOnDisplay : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(geteuid(), 0u) << "this test needs root to show panels as another user";
        xvfb_ = Start({"Xvfb", "-displayfd", "1", "-ac", "-nolisten", "tcp", "-screen", "0", "800x600x24"}, display_);
        std::string number;
        for (char c; read(display_.get(), &c, 1) == 1 && c != '\n';) number += c;
        ASSERT_FALSE(number.empty()) << "Xvfb did not start (package xvfb, scripts/packages)";
        setenv("DISPLAY", (":" + number).c_str(), 1);
        setenv("NO_AT_BRIDGE", "1", 1);
        unsetenv("WAYLAND_DISPLAY");
    }
    void TearDown() override {
        kill(xvfb_, SIGTERM);
        waitpid(xvfb_, nullptr, 0);
    }
    // Shows a panel as `user`, notes who shows it and how, then types the keys.
    std::string Show(const std::string& title, const std::optional<std::string>& alternate,
                     std::vector<std::string> keys, std::pair<std::string, std::vector<std::string>>* shown = nullptr) {
        AlertPanel& panel = platform::Use<AlertPanel>();
        panel.SharedApplication(kNobody);
        auto answer = std::async(std::launch::async, [&] {
            return panel.RunAlertPanel(title, "Remove <b>all</b> & everything?", "No", alternate);
        });
        std::string pattern = "^";
        for (char c : title) pattern += std::string(std::strchr("\\^$.|?*+()[]{}", c) ? "\\" : "") + c;
        // Asked again when xdotool gives up early, as it can when the display is busy.
        std::string window;
        for (int attempt = 0; attempt < 3 && window.empty(); ++attempt)
            window = Xdotool({"search", "--sync", "--limit", "1", "--name", pattern + "$"});
        EXPECT_FALSE(window.empty()) << "no window titled " << title;
        if (shown) *shown = Process(std::atoi(Xdotool({"getwindowpid", window}).c_str()));
        Xdotool({"windowfocus", "--sync", window});
        usleep(300 * 1000);
        keys.insert(keys.begin(), "key");
        Xdotool(keys);
        if (answer.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
            ADD_FAILURE() << "the panel did not close";
            Xdotool({"windowkill", window});
        }
        return Describe(answer.get());
    }

    pid_t xvfb_ = -1;
    platform::UniqueFd display_;
};

TEST_F(AlertPanelOnDisplay, TheUserIsAskedWithTheTextsVerbatimAndReturnGivesTheDefault) {
    const std::string title = "Quorvik \"$(touch /tmp/qvk-owned)\" `id` \\ ;";
    std::pair<std::string, std::vector<std::string>> shown;
    EXPECT_EQ(Show(title, "Yes", {"Return"}, &shown), "default asked zenity");
    EXPECT_EQ(shown.first, "Uid:\t65534\t65534\t65534\t65534");
    EXPECT_THAT(std::vector<std::string>(shown.second.begin() + 1, shown.second.end()),
                ElementsAre("--question", "--no-markup", "--default-cancel", "--title=" + title,
                            "--text=Remove <b>all</b> & everything?", "--ok-label=Yes", "--cancel-label=No"));
    EXPECT_NE(access("/tmp/qvk-owned", F_OK), 0);
    EXPECT_EQ(Show("Quorvik alternate", "Yes", {"Tab", "Return"}), "alternate asked zenity");
}

// What a panel did in a child of its own session, with a pseudo-terminal as its controlling
// terminal (or none): the screen and the answer.
std::pair<std::string, std::string> OnTerminal(bool withTerminal, const std::optional<std::string>& alternate,
                                               const std::string& typed) {
    int results[2], master = -1;
    if (pipe(results) != 0) return {};
    pid_t pid = withTerminal ? forkpty(&master, nullptr, nullptr, nullptr) : fork();
    if (pid == 0) {
        if (!withTerminal) setsid();
        unsetenv("DISPLAY");
        unsetenv("WAYLAND_DISPLAY");
        AlertPanel& panel = platform::Use<AlertPanel>();
        panel.SharedApplication(kNobody);
        std::string text = Describe(
            panel.RunAlertPanel("Quorvik\x1b[2J", "Do you really want to deinstall Quorvik?", "No", alternate));
        _exit(write(results[1], text.data(), text.size()) < 0);
    }
    close(results[1]);
    platform::UniqueFd terminal(master), answer(results[0]);
    std::string screen, result;
    char buf[512];
    // Reads the prompt up to its end (waiting 20 s at most for each piece), then answers.
    pollfd ready{master, POLLIN, 0};
    for (ssize_t n; withTerminal && screen.find(") ") == std::string::npos && poll(&ready, 1, 20000) > 0 &&
                    (n = read(master, buf, sizeof buf)) > 0;)
        screen.append(buf, static_cast<std::size_t>(n));
    if (withTerminal && write(master, typed.data(), typed.size()) < 0) ADD_FAILURE() << "cannot type";
    for (ssize_t n; (n = read(answer.get(), buf, sizeof buf)) > 0;) result.append(buf, static_cast<std::size_t>(n));
    waitpid(pid, nullptr, 0);
    return {screen, result};
}

TEST(AlertPanelOnTerminal, TakesOnlyTheAlternateLabelInAnyCaseAsTheAlternateAnswer) {
    auto [screen, result] = OnTerminal(true, "Zap", "  zAP \n");
    EXPECT_EQ(result, "alternate asked terminal");
    // The escape sequence in the title reaches the terminal defused.
    EXPECT_THAT(screen, ::testing::HasSubstr("Quorvik?[2J"));
    EXPECT_THAT(screen, ::testing::HasSubstr("Do you really want to deinstall Quorvik?"));
    EXPECT_THAT(screen, ::testing::HasSubstr("(Zap / No, Return: No) "));
    for (const std::string& typed : {std::string("\n"), std::string("z\n"), std::string(300, 'x') + "Zap\n"})
        EXPECT_EQ(OnTerminal(true, "Zap", typed).second, "default asked terminal") << typed;
    EXPECT_EQ(OnTerminal(true, std::nullopt, "\n").second, "default asked terminal");
    EXPECT_EQ(OnTerminal(false, "Zap", "").second, "default not asked no display and no terminal");
}

}  // namespace
}  // namespace qvk::test
