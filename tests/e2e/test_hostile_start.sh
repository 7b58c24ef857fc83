# A user who starts the set-user-id Launcher with hostile arguments, environment or limits gains
# nothing: the privileged run acts for that user alone, with no group of theirs and in their own
# home folder; a failed hand-over leaves the Launcher working for everybody; and only an
# administrator or the application folder's owner may remove the package.
source "$(dirname "$0")/lib.sh"

QUESTION=(/usr/bin/zenity --question --no-markup --default-cancel "--title=Quorvik Connect"
    "--text=Do you really want to deinstall Quorvik Connect?" --ok-label=Yes --cancel-label=No)
REFUSAL="(Errors): QVK_Framework_MayRemovePackage: Not removing the package for uid $USER_ID"

# The log has a line with TEXT, or none (--none). Usage: expect_logged [--none] TEXT
expect_logged() {
    if [ "$1" = --none ]; then
        e2e_check "no log line with: $2" bash -c '! grep -qF -- "$1" "$2"' _ "$2" "$ROOT$(main_log)"
    else
        e2e_check "a log line with: $1" grep -qF -- "$1" "$ROOT$(main_log)"
    fi
}

# A driver marked as installed from the package.
marked_driver() {
    echo "<plist/>" | put /System/Library/Extensions/Marked.kext/Contents/Info.plist
    printf '%s' "$APP/Contents/Drivers-Install/Drivers/Marked.kext" |
        put "/System/Library/Extensions/Marked.kext/Quorvik Source"
}

# Starts PATH as the user, with a 512 KiB stack, an empty environment and one argument of LENGTH
# spaces, and waits for it; STATUS is its exit status (and the function's). The output goes to
# OUTPUT. Usage: start_with_argument PATH LENGTH OUTPUT
start_with_argument() {
    setsid chroot --userspec="$USER_ID:$USER_GID" --groups="$USER_GID" "$ROOT" /bin/bash -c \
        'ulimit -s 512 && exec -c "$1" "$(printf "%*s" "$2" "")"' _ "$1" "$2" </dev/null >>"$3" 2>&1
    STATUS=$?
    return $STATUS
}

for options in "--uid" "--uid 0 --lang"; do
    scenario "a trailing \"$options\" cannot swallow the user's id: the question is the user's"
    marker /tmp/Quorvik-PleaseDoLog
    record_env DISPLAY
    tool_status zenity 1
    # shellcheck disable=SC2086 # the options are words
    launch --env DISPLAY=:5 -- --qvk-uninstall $options
    expect_status 0
    expect_calls 1 --where "uid=$USER_ID DISPLAY=:5" "${QUESTION[@]}"
    expect_only_calls /usr/bin/zenity
done

scenario "the privileged run has group 0 alone and works in the account's home folder"
launch --background --env HOME=/tmp/elsewhere
wait_until_serving
expect_user_ids 0 0
read -r _ gids < <(grep '^Gid:' "/proc/$PID/status")
read -r _ groups < <(grep '^Groups:' "/proc/$PID/status")
# shellcheck disable=SC2086 # the ids are words
e2e_check "group 0 and no supplementary groups (got $(echo $gids) | ${groups:-none})" \
    [ "$(echo $gids) | ${groups:-none}" = "0 0 0 0 | none" ]
e2e_check "HOME is the account's (got $(tr '\0' '\n' <"/proc/$PID/environ" | grep '^HOME='))" \
    grep -qzx "HOME=$USER_HOME" "/proc/$PID/environ"
stop_launcher

scenario "a hand-over that fails for its length puts the set-user-id bit back"
# With a 512 KiB stack the arguments and environment may take 128 KiB. Started with an empty
# environment and the longest argument that still fits beside a path as short as the one the
# hand-over uses, the Launcher's own start succeeds and the hand-over, with more to carry, does not.
in_root ln -s "$EXE" /tmp/L
in_root ln -s /bin/true /tmp/T
low=1000 high=140000
while [ $((high - low)) -gt 1 ]; do
    mid=$(((low + high) / 2))
    if start_with_argument /tmp/T "$mid" /dev/null; then low=$mid; else high=$mid; fi
done
# (Its abort is no news to the harness.)
start_with_argument /tmp/L "$low" "$ROOT/.e2e/launcher.out" 2>/dev/null
expect_status 134
e2e_check "the hand-over failed its assertion" grep -qF \
    "Assertion failed: (NO), function QVK_Framework_HandleSetuid, file ../../Framework/Framework/Apple/Setuid, line 79." \
    "$ROOT/.e2e/launcher.out"
expect_mode "$EXE" "4755 0:0"

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
    expect_logged "$REFUSAL: neither an administrator nor the owner of $APP"
done

scenario "the application folder's owner may remove the package"
marker /tmp/Quorvik-PleaseDoLog
not_administrator
in_root chown "$USER_ID:$USER_GID" "$APP"
tool_status zenity 1
launch --env DISPLAY=:5 -- --qvk-uninstall
expect_status 0
expect_calls 1 --where "uid=$USER_ID" "${QUESTION[@]}"
expect_logged --none "$REFUSAL"

scenario "an administrator may remove the drivers"
marker /tmp/Quorvik-PleaseDoLog
marked_driver
launch -- --qvk-drivers-uninstall
expect_status 0
expect_no_file /System/Library/Extensions/Marked.kext
expect_logged --none "$REFUSAL"

scenario "the super-user's own start is never refused, whomever it acts for"
marker /tmp/Quorvik-PleaseDoLog
not_administrator
marked_driver
launch --as root -- --qvk-drivers-uninstall --uid "$USER_ID"
expect_status 0
expect_no_file /System/Library/Extensions/Marked.kext
expect_logged --none "$REFUSAL"
