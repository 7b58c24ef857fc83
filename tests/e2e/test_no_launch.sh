# The user's no-launch marker switches the normal life off.
source "$(dirname "$0")/lib.sh"

scenario "the no-launch marker in the home folder of the password entry ends the Launcher at once with status 0"
marker "$USER_HOME/.Quorvik-NoLaunch-Brisel"
launch --unset HOME
expect_status 0
expect_no_calls

scenario "the marker counts only in the home folder"
marker "/tmp/.Quorvik-NoLaunch-Brisel"
marker "/Users/.Quorvik-NoLaunch-Brisel"
serve
