# The set-user-id start: the user's start re-executes the Launcher as root, carrying the user's id
# and language across.
source "$(dirname "$0")/lib.sh"

SETUID_SOURCE="../../Framework/Framework/Apple/Setuid:25(Trace): QVK_Framework_HandleSetuid"

scenario "the set-user-id start goes on as root with --uid and --lang appended"
marker /tmp/Quorvik-PleaseDoLog
folder "$LAUNCHER_APP/Contents/Resources/de.lproj" "$LAUNCHER_APP/Contents/Resources/fr.lproj"
launch --background --env LANG=de_DE.UTF-8 -- --qvk-uninstallx
wait_until_serving
expect_command_line "$EXE" --qvk-uninstallx --uid "$USER_ID" --lang de
expect_user_ids 0 0
stop_launcher
expect_line "$(main_log)" "Unknown: <date>: $SETUID_SOURCE: uid: 0 euid: 0"
expect_line "$(main_log)" 'Unknown: <date>: Strings:171(Trace): InitLocalizations: Localizations: (\n    de,\n    en\n)'
expect_mode "$EXE" "4755 0:0"

scenario "without the set-user-id bit the Launcher is not re-executed"
marker /tmp/Quorvik-PleaseDoLog
in_root chmod 0755 "$EXE"
launch --background
wait_until_serving
expect_command_line "$EXE"
stop_launcher
expect_line "$(main_log)" "Unknown: <date>: $SETUID_SOURCE: uid: $USER_ID euid: $USER_ID"

scenario "before 10.6 the set-user-id start is not re-executed" --version 10.5.8
marker /tmp/Quorvik-PleaseDoLog
launch --background
wait_until_serving
expect_command_line "$EXE"
stop_launcher
expect_line "$(main_log)" "Unknown: <date>: $SETUID_SOURCE: uid: $USER_ID euid: 0"
