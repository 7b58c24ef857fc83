# A user who starts the set-user-id Launcher gains nothing: the privileged run has no group of
# theirs and works in their own home folder, and only an administrator or the application folder's
# owner may remove the package.
source "$(dirname "$0")/lib.sh"

REFUSAL="(Errors): QVK_Framework_MayRemovePackage: Not removing the package for uid $USER_ID"

# A driver marked as installed from the package.
marked_driver() {
    echo "<plist/>" | put /System/Library/Extensions/Marked.kext/Contents/Info.plist
    printf '%s' "$APP/Contents/Drivers-Install/Drivers/Marked.kext" |
        put "/System/Library/Extensions/Marked.kext/Quorvik Source"
}

scenario "the privileged run has group 0 alone and works in the account's home folder"
launch --background --env HOME=/tmp/elsewhere
wait_until_serving
expect_user_ids 0 0
e2e_check "group 0 and no supplementary groups" grep -Pzq 'Gid:\t0\t0\t0\t0\n(.*\n)*Groups:\s*\n' "/proc/$PID/status"
e2e_check "HOME is the account's" grep -qzx "HOME=$USER_HOME" "/proc/$PID/environ"
stop_launcher

for option in --qvk-uninstall --qvk-drivers-uninstall; do
    scenario "$option by a user who administers nothing is refused before anything is asked or removed"
    marker /tmp/Quorvik-PleaseDoLog
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

scenario "the application folder's owner may remove the package"
marker /tmp/Quorvik-PleaseDoLog
not_administrator
in_root chown "$USER_ID:$USER_GID" "$APP"
tool_status zenity 1
launch --env DISPLAY=:5 -- --qvk-uninstall
expect_status 0
expect_calls 1 --where "uid=$USER_ID" /usr/bin/zenity --question --no-markup --default-cancel \
    "--title=Quorvik Connect" "--text=Do you really want to deinstall Quorvik Connect?" --ok-label=Yes --cancel-label=No
expect_no_line "$(main_log)" "$REFUSAL"

scenario "the super-user's own start is never refused, whomever it acts for"
not_administrator
marked_driver
launch --as root -- --qvk-drivers-uninstall --uid "$USER_ID"
expect_status 0
expect_no_file /System/Library/Extensions/Marked.kext
