// What a command text and the caller's environment become for a child of the super-user.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/command_words.h"
#include "platform/environment.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;
using Words = std::optional<std::vector<std::string>>;

TEST(SimpleCommandWords, RunsWithoutAShellOnlyWhatTheShellWouldRunAsItIs) {
    const std::pair<const char*, Words> cases[] = {
        {"/usr/bin/open -a \"/Applications/Quorvik Link.app\"",
         Words({"/usr/bin/open", "-a", "/Applications/Quorvik Link.app"})},
        {"killall  -HUP\tkextd", Words({"killall", "-HUP", "kextd"})},
        {"rm -rf \"/a b\"\"c\"d \"\"", Words({"rm", "-rf", "/a bcd", ""})},
        {"/usr/bin/defaults delete Quorvik.Updater key=value",
         Words({"/usr/bin/defaults", "delete", "Quorvik.Updater", "key=value"})},
        // Pipes, redirections, expansions, patterns, other quotes, comments, a home folder, an
        // assignment, a built-in or reserved word, an open quote, nothing at all: the shell's.
        {"ps -A | grep x", std::nullopt},
        {"echo x > /tmp/y", std::nullopt},
        {"rm -rf \"$HOME\"", std::nullopt},
        {"rm -rf \"`id`\"", std::nullopt},
        {"rm -rf \"a\\\"b\"", std::nullopt},
        {"rm -rf *", std::nullopt},
        {"rm -rf 'a'", std::nullopt},
        {"rm x #y", std::nullopt},
        {"rm ~/x", std::nullopt},
        {"PATH=/tmp rm x", std::nullopt},
        {"kill -HUP 1", std::nullopt},
        {"\"kill\" 1", std::nullopt},
        {"if x", std::nullopt},
        {"rm \"x", std::nullopt},
        {"rm x;id", std::nullopt},
        {"\"\" x", std::nullopt},
        {"  ", std::nullopt},
    };
    for (const auto& [command, words] : cases) EXPECT_EQ(platform::SimpleCommandWords(command), words) << command;
}

TEST(SuperUserEnvironment, KeepsTheSessionAndLanguageAndNothingThatSteersAProgram) {
    EXPECT_THAT(
        platform::SuperUserEnvironment({
            "PATH=/home/maria/bin",
            "HOME=/Users/maria",
            "HOME=/elsewhere",
            "BASH_FUNC_ps%%=() { id; }",
            "SHELLOPTS=xtrace",
            "GTK_MODULES=/home/maria/evil.so",
            "PYTHONPATH=/home/maria",
            "PERL5OPT=-Mevil",
            "LD_PRELOAD=/home/maria/evil.so",
            "LANG=de_DE.UTF-8",
            "LC_MESSAGES=/home/maria/catalog",
            "LC_ALL=fr_FR",
            "LANGUAGE=de:../../home/maria",
            "TZ=Europe/Berlin",
            "TZ=CET",
            "DISPLAY=:1",
            "QUORVIKCRAP_INSTALLATIONMOVED=",
            "=odd",
            "noequals",
        }),
        ElementsAre("PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "HOME=/Users/maria",
                    "LANG=de_DE.UTF-8", "LC_ALL=fr_FR", "TZ=CET", "DISPLAY=:1", "QUORVIKCRAP_INSTALLATIONMOVED="));
}

}  // namespace
}  // namespace qvk::test
