# The scan of the command line for the two uninstall options.
source "$(dirname "$0")/lib.sh"

scenario "the first option wins, and an uninstall option acts even with the no-launch marker"
marker /tmp/Quorvik-PleaseDoLog
marker "$USER_HOME/.Quorvik-NoLaunch-Brisel"
launch --env DISPLAY=:5 -- --qvk-drivers-uninstall --qvk-uninstall
expect_status 0
expect_line "$(main_log)" "Unknown: <date>: Main:79(Trace): main: BRISEL Found --qvk-uninstall"
expect_no_line "$(main_log)" "Main:68(Trace)"
expect_no_call /usr/bin/zenity

scenario "near misses of the options lead to the normal life"
marker /tmp/Quorvik-PleaseDoLog
serve -- --qvk-uninstall=1 --QVK-UNINSTALL --qvk-uninstallx -qvk-uninstall " --qvk-uninstall" \
    --qvk-drivers-uninstall=yes --qvk-drivers-uninstal --uid 0
expect_no_line "$(main_log)" "Found --qvk-uninstall"
