source "$(dirname "$0")/lib.sh"

HEADER="Project Launcher Build (null)"

scenario "the main marker in /tmp writes the combined file with its header" --version 10.5.8 --log
serve
expect_head "$(main_log)" "$HEADER" "" "System version 00001058" ""
expect_line "$(main_log)" "Unknown: <date>: AppName:61(Trace): GetCString: CFBundleDisplayName -> Quorvik Connect"
expect_line "$(main_log)" 'Unknown: <date>: AppName:90(Trace): GetAppName: QVK_Framework_BuildID="201104.120000"'
expect_no_file "$(type_log Trace)"
expect_no_files '/tmp/Quorvik.[0-9]*.log'

scenario "the split marker adds one file per log type" --version 10.10.3 --log
marker /tmp/Quorvik-PleaseDoLog-Split
serve
expect_head "$(type_log Trace)" "$HEADER" "" "System version 00001093" ""
expect_line "$(type_log Trace)" "Unknown <date> AppName 61 GetCString: CFBundleName -> Quorvik"
expect_line "$(main_log)" "Unknown: <date>: AppName:61(Trace): GetCString: CFBundleName -> Quorvik"
expect_no_file "$(type_log Errors)"

scenario "the split marker alone logs nothing, and the no-launch marker counts only in the home folder"
marker /tmp/Quorvik-PleaseDoLog-Split
marker /tmp/.Quorvik-NoLaunch-Brisel
marker /Users/.Quorvik-NoLaunch-Brisel
serve
expect_no_files "{/tmp,$USER_HOME}/Quorvik.*"


scenario "the depth marker in /tmp writes a timestamped file with its header" --version 10.5.8
marker /tmp/Quorvik-DoLog 255
before=$(in_root /usr/bin/env -i date +%y%m%d.%H%M%S)
serve
after=$(in_root /usr/bin/env -i date +%y%m%d.%H%M%S)
find_one depth '/tmp/Quorvik.[0-9]*.log'
expect_head "$depth" "$HEADER" "" "System version 00001058 | Log Depth 255" "" "<date> Unknown Main:42 Nomain NoneLaunch"
stamp=${depth#/tmp/Quorvik.} stamp=${stamp%.log}
[[ $stamp =~ ^[0-9]{6}\.[0-9]{6}$ && ! $stamp < $before && ! $stamp > $after ]] && ok=true || ok=false
e2e_check "time stamp $stamp of the form yymmdd.HHMMSS between $before and $after" $ok
expect_no_file "$(main_log)"

scenario "a depth mask without the start-up bit gives a header and no lines"
marker /tmp/Quorvik-DoLog "4 levels"
serve
find_one depth '/tmp/Quorvik.[0-9]*.log'
expect_head "$depth" "$HEADER" "" "System version 00001068 | Log Depth 4" ""
expect_no_line "$depth" "NoneLaunch"

scenario "the depth marker in the home folder writes a .txt file there, without header"
marker "$USER_HOME/Quorvik-DoLog" 1
serve
find_one depth "$USER_HOME/Quorvik.[0-9]*.txt"
expect_head "$depth" "<date> Unknown Main:42 Nomain NoneLaunch"
expect_no_files '/tmp/Quorvik.*'

scenario "the no-launch marker in the home folder of the password entry ends the Launcher at once with status 0"
marker "$USER_HOME/.Quorvik-NoLaunch-Brisel"
launch --unset HOME
expect_status 0
expect_no_calls

scenario "the first option wins, and an uninstall option acts even with the no-launch marker" --log
marker "$USER_HOME/.Quorvik-NoLaunch-Brisel"
launch --env DISPLAY=:5 -- --qvk-drivers-uninstall --qvk-uninstall
expect_status 0
expect_line "$(main_log)" "Unknown: <date>: Main:79(Trace): main: BRISEL Found --qvk-uninstall"
expect_no_line "$(main_log)" "Main:68(Trace)"
expect_no_call /usr/bin/zenity

scenario "near misses of the options lead to the normal life; the main marker in the home folder logs to /tmp" --no-version
marker "$USER_HOME/Quorvik-PleaseDoLog"
serve -- --qvk-uninstall=1 --QVK-UNINSTALL --qvk-uninstallx -qvk-uninstall " --qvk-uninstall" \
    --qvk-drivers-uninstall=yes --qvk-drivers-uninstal --uid 0
expect_head "$(main_log)" "$HEADER" "" "System version 00001090" ""
expect_no_line "$(main_log)" "Found --qvk-uninstall"
