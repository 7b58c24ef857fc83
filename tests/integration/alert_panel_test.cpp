// The alert panel against real zenity under Xvfb and on a real pseudo-terminal.
#include <poll.h>
#include <pty.h>

#include <cstdio>
#include <future>

#include "../unit/test_support.h"
#include "platform/alert_panel.h"
#include "platform/unique_fd.h"

namespace qvk::test {
namespace {

constexpr unsigned kNobody = 65534;

// "default asked zenity": the button, whether anyone was asked, and how.
std::string Describe(const platform::AlertAnswer& answer) {
    return std::string(answer.button == platform::AlertReturn::Alternate ? "alternate" : "default") + " " +
           (answer.asked ? "asked" : "not asked") + " " + answer.detail;
}

// xdotool's first line of output on the current display (`args` are shell words).
std::string Xdotool(const std::string& args) {
    char line[256] = "";
    if (FILE* out = popen(("timeout 20 xdotool " + args).c_str(), "r")) {
        if (!std::fgets(line, sizeof line, out)) line[0] = '\0';
        pclose(out);
    }
    return std::string(line, std::strcspn(line, "\n"));
}

class AlertPanelOnDisplay : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(geteuid(), 0u) << "this test needs root to show panels as another user";
        // The shell's pid becomes Xvfb's; Xvfb writes its display number once it takes connections.
        xvfb_ = popen("echo $$; exec Xvfb -displayfd 1 -ac -nolisten tcp -screen 0 800x600x24", "r");
        int display = -1;
        ASSERT_TRUE(xvfb_ && std::fscanf(xvfb_, "%d %d", &pid_, &display) == 2)
            << "Xvfb did not start (package xvfb, scripts/packages)";
        setenv("DISPLAY", std::string(":").append(std::to_string(display)).c_str(), 1);
        setenv("NO_AT_BRIDGE", "1", 1);
        unsetenv("WAYLAND_DISPLAY");
    }
    void TearDown() override {
        if (pid_ > 0) kill(pid_, SIGTERM);
        if (xvfb_) pclose(xvfb_);
    }
    // Shows a Yes/No panel as nobody, finds it by its exact title, then types the keys.
    std::string Show(const std::string& title, const std::string& keys) {
        platform::AlertPanel& panel = platform::Use<platform::AlertPanel>();
        panel.SharedApplication(kNobody);
        auto answer = std::async(std::launch::async, [&] {
            return panel.RunAlertPanel(title, "Remove <b>all</b> & everything?", "No", "Yes");
        });
        std::string pattern = "'^";
        for (char c : title) pattern += std::string(std::strchr("\\^$.|?*+()[]{}", c) ? "\\" : "") + c;
        // Asked again when xdotool gives up early, as it can when the display is busy.
        std::string window;
        for (int attempt = 0; attempt < 3 && window.empty(); ++attempt)
            window = Xdotool("search --sync --limit 1 --name " + pattern + "$'");
        EXPECT_FALSE(window.empty()) << "no window titled " << title;
        Xdotool("windowfocus --sync " + window);
        usleep(300 * 1000);
        Xdotool("key " + keys);
        if (answer.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
            ADD_FAILURE() << "the panel did not close";
            Xdotool("windowkill " + window);
        }
        return Describe(answer.get());
    }

    FILE* xvfb_ = nullptr;
    pid_t pid_ = -1;
};

TEST_F(AlertPanelOnDisplay, TheTitleIsShownVerbatimReturnGivesTheDefaultAndTabReturnTheAlternate) {
    EXPECT_EQ(Show("Quorvik \"$(touch /tmp/qvk-owned)\" `id` \\ ;", "Return"), "default asked zenity");
    EXPECT_NE(access("/tmp/qvk-owned", F_OK), 0);
    EXPECT_EQ(Show("Quorvik alternate", "Tab Return"), "alternate asked zenity");
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
        platform::AlertPanel& panel = platform::Use<platform::AlertPanel>();
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
    EXPECT_EQ(screen, "\r\nQuorvik?[2J\r\n\r\nDo you really want to deinstall Quorvik?\r\n\r\n(Zap / No, Return: No) ");
    for (const std::string& typed : {std::string("\n"), std::string("z\n"), std::string(300, 'x') + "Zap\n"})
        EXPECT_EQ(OnTerminal(true, "Zap", typed).second, "default asked terminal") << typed;
    EXPECT_EQ(OnTerminal(false, "Zap", "").second, "default not asked no display and no terminal");
}

}  // namespace
}  // namespace qvk::test
