# Start-up with each combination of log markers, and the files it leaves.
source "$(dirname "$0")/lib.sh"

scenario "without markers nothing is logged anywhere"
serve
expect_no_logs

scenario "the main marker in /tmp writes the combined file with its header" --version 10.5.8
marker /tmp/Quorvik-PleaseDoLog
serve
expect_head "$(main_log)" "Project Launcher Build (null)" "" "System version 00001058" ""
expect_line "$(main_log)" "Unknown: <date>: AppName:61(Trace): GetCString: CFBundleDisplayName -> Quorvik Connect"
expect_line "$(main_log)" 'Unknown: <date>: AppName:90(Trace): GetAppName: QVK_Framework_BuildID="201104.120000"'
expect_no_file "$(type_log Trace)"
expect_no_files '/tmp/Quorvik.[0-9]*.log'

scenario "the split marker adds one file per log type" --version 10.10.3
marker /tmp/Quorvik-PleaseDoLog
marker /tmp/Quorvik-PleaseDoLog-Split
serve
expect_head "$(type_log Trace)" "Project Launcher Build (null)" "" "System version 00001093" ""
expect_line "$(type_log Trace)" "Unknown <date> AppName 61 GetCString: CFBundleName -> Quorvik"
expect_line "$(main_log)" "Unknown: <date>: AppName:61(Trace): GetCString: CFBundleName -> Quorvik"
expect_no_file "$(type_log Errors)"

scenario "the split marker alone logs nothing"
marker /tmp/Quorvik-PleaseDoLog-Split
serve
expect_no_logs

scenario "the main marker in the home folder still logs to /tmp" --no-version
marker "$USER_HOME/Quorvik-PleaseDoLog"
serve
expect_head "$(main_log)" "Project Launcher Build (null)" "" "System version 00001090" ""
expect_line "$(main_log)" "Unknown: <date>: AppName:61(Trace): GetCString: CFBundleDisplayName -> Quorvik Connect"

scenario "the depth marker in /tmp writes a timestamped file with its header" --version 10.5.8
marker /tmp/Quorvik-DoLog 255
before=$(stamp)
serve
after=$(stamp)
find_one depth '/tmp/Quorvik.[0-9]*.log'
expect_head "$depth" "Project Launcher Build (null)" "" "System version 00001058 | Log Depth 255" "" \
    "<date> Unknown Main:42 Nomain NoneLaunch"
stamped=${depth#/tmp/Quorvik.}
expect_stamp "${stamped%.log}" "$before" "$after"
expect_no_file "$(main_log)"

scenario "a depth mask without the start-up bit gives a header and no lines"
marker /tmp/Quorvik-DoLog "4 levels"
serve
find_one depth '/tmp/Quorvik.[0-9]*.log'
expect_head "$depth" "Project Launcher Build (null)" "" "System version 00001068 | Log Depth 4" ""
expect_no_line "$depth" "NoneLaunch"

scenario "the depth marker in the home folder writes a .txt file there, without header"
marker "$USER_HOME/Quorvik-DoLog" 1
serve
find_one depth "$USER_HOME/Quorvik.[0-9]*.txt"
expect_head "$depth" "<date> Unknown Main:42 Nomain NoneLaunch"
expect_no_files '/tmp/Quorvik.*'
