source "$(dirname "$0")/lib.sh"

SETUID_SOURCE="../../Framework/Framework/Apple/Setuid:25(Trace): QVK_Framework_HandleSetuid"
REFUSAL="(Errors): QVK_Framework_MayRemovePackage: Not removing the package for uid $USER_ID"
marked_driver() {
    echo "<plist/>" | put /System/Library/Extensions/Marked.kext/Contents/Info.plist
    printf '%s' "$APP/Contents/Drivers-Install/Drivers/Marked.kext" | put "/System/Library/Extensions/Marked.kext/Quorvik Source"
}

scenario "the set-user-id start goes on as root alone, in the account's home folder, with --uid and --lang appended" --log
folder "$LAUNCHER_APP/Contents/Resources/de.lproj" "$LAUNCHER_APP/Contents/Resources/fr.lproj"
launch --background --env LANG=de_DE.UTF-8 --env HOME=/tmp/elsewhere -- --qvk-uninstallx
wait_until_serving
expect_command_line "$EXE" --qvk-uninstallx --uid "$USER_ID" --lang de
e2e_check "user 0, group 0 and no supplementary groups" grep -Pzq 'Uid:\t0\t0\t0\t0\nGid:\t0\t0\t0\t0\n(.*\n)*Groups:\s*\n' "/proc/$PID/status"
e2e_check "HOME is the account's" grep -qzx "HOME=$USER_HOME" "/proc/$PID/environ"
stop_launcher
expect_line "$(main_log)" "Unknown: <date>: $SETUID_SOURCE: uid: 0 euid: 0"
expect_line "$(main_log)" 'Unknown: <date>: Strings:171(Trace): InitLocalizations: Localizations: (\n    de,\n    en\n)'
expect_mode "$EXE" "4755 0:0"

for case in "0755 10.6.8 $USER_ID without the set-user-id bit" "4755 10.5.8 0 before 10.6"; do
    read -r mode version euid title <<<"$case"
    scenario "$title the Launcher is not re-executed" --version "$version" --log
    in_root chmod "$mode" "$EXE"
    launch --background
    wait_until_serving
    expect_command_line "$EXE"
    stop_launcher
    expect_line "$(main_log)" "Unknown: <date>: $SETUID_SOURCE: uid: $USER_ID euid: $euid"
done

for option in --qvk-uninstall --qvk-drivers-uninstall; do
    scenario "$option by a user who administers nothing is refused before anything is asked or removed" --log
    not_administrator
    marked_driver
    folder "/Applications/Quorvik Connect DriversUninstaller.app"
    snapshot
    launch --env DISPLAY=:5 -- "$option"
    expect_status 1
    expect_no_calls
    expect_unchanged
    e2e_check "refused in the log" grep -qF "$REFUSAL: neither an administrator nor the owner of $APP" "$ROOT$(main_log)"
done

scenario "the application folder's owner may remove the package" --log
not_administrator
in_root chown "$USER_ID:$USER_GID" "$APP"
tool_status zenity 1
launch --env DISPLAY=:5 -- --qvk-uninstall
expect_status 0
e2e_check "the user is asked" grep -q "^/usr/bin/zenity \[--question\] .* | uid=$USER_ID$" "$ROOT/.e2e/journal"
expect_no_line "$(main_log)" "$REFUSAL"

scenario "the super-user's own start is never refused, whomever it acts for"
not_administrator
marked_driver
launch --as root -- --qvk-drivers-uninstall --uid "$USER_ID"
expect_status 0
expect_no_file /System/Library/Extensions/Marked.kext
