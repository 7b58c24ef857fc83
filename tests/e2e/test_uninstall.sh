source "$(dirname "$0")/lib.sh"

QUESTION="/usr/bin/zenity [--question] [--no-markup] [--default-cancel] [--title=Quorvik Connect] [--text=Do you really want to deinstall Quorvik Connect?] [--ok-label=Yes] [--cancel-label=No]"
RESTART="/usr/bin/zenity [--info] [--no-markup] [--title=Quorvik Connect] [--text=Quorvik Connect has been deinstalled, but some parts remain in the system until the next restart] [--ok-label=OK] | uid=$USER_ID"
PREFERENCES=/Library/Preferences/SystemConfiguration/preferences.plist SERVICE=Quorvik_Connect-1
UNINSTALLER="/Applications/Quorvik Connect Uninstall.app" MODEM_SCRIPT="/Library/Modem Scripts/Quorvik Virtual Modem"
NEW_RECEIPTS=(/var/db/receipts/com.quorvik.Connect.package.plist /var/db/receipts/com.quorvik.Connect.package.bom)
OLD_RECEIPT=/Library/Receipts/Quorvik.pkg EXTENSIONS=/System/Library/Extensions
CACHES=(/System/Library/Caches/com.apple.kext.caches/Directories/System/Library/Extensions/{KextIdentifiers.plist,IOKitPersonalities_i386.ioplist}.gz
    /System/Library/Extensions.mkext /System/Library/Extensions.kextcache)
AGENT="$USER_HOME/Library/LaunchAgents/Quorvik Connect.plist"
BAD_APP='/Applications/Quorvik "$(touch pwned)" `touch pwned`.app'

# A "ps" stand-in listing the Launcher (its caller's caller), APP_PID, odd lines, then LATE_PID after a line without a number.
fake_ps() {
    in_root /bin/sleep 300 & APP_PID=$!
    in_root /bin/sleep 300 & LATE_PID=$!
    put /usr/local/bin/ps 0755 <"$E2E_SOURCE_DIR/standin.sh"
    put /.e2e/answer/ps <<EOS
printf '  PID COMM\n%s %s\n' "\$(cut -d' ' -f4 /proc/\$PPID/stat)" "$LAUNCHER_APP/Contents/MacOS/Launcher"
printf '%s\n' "$APP_PID $APP/Contents/MacOS/Quorvik Connect" "   77 /usr/sbin/cron" "  -1 $APP/Contents/Odd" \
    "  abc $APP/Contents/Stray" "$LATE_PID $APP/Contents/Late"
EOS
}
expect_journal() { e2e_same "the journal holds the calls in order" "$(cat)" "$(cat "$ROOT/.e2e/journal")"; }
expect_count() {
    local got=$(grep -cF -- "$3" "$ROOT$2" 2>/dev/null)
    e2e_check "$2 has $1 lines with: $3 (got ${got:-0})" [ "${got:-0}" = "$1" ]
}
device_list() {
    printf '<plist version="1.0"><array><dict><key>Drivers</key><array>%s</array></dict></array></plist>\n' \
        "$(printf '<string>%s</string>' "$@")"
}
kext() { echo "<plist/>" | put "$1/Contents/Info.plist" && in_root touch -d "@$2" "$1" || e2e_die "cannot date $1"; }
# Usage: driver NAME [MARK]
driver() {
    echo "<plist/>" | put "$EXTENSIONS/$1/Contents/Info.plist"
    [ $# -lt 2 ] || printf '%s' "$2" | put "$EXTENSIONS/$1/Quorvik Source"
}
installed_package() {
    for file in "$UNINSTALLER/Contents/Info.plist" "$MODEM_SCRIPT" "${NEW_RECEIPTS[@]}" "$OLD_RECEIPT/Contents/Archive.bom" \
        "${CACHES[@]}"; do echo x | put "$file"; done
    # The old receipts are the administrators' group's, as on the Mac: removed once the Launcher is the user.
    in_root /bin/sh -c 'chown -R "0:$1" /Library/Receipts && chmod -R g+w /Library/Receipts' sh "$USER_GID" ||
        e2e_die "cannot hand the receipts to the administrators"
    echo "<plist/>" | put "$AGENT" 0644 "$USER_ID:$USER_GID"
    echo "settings" | put "$USER_HOME/.Quorvik/settings.plist" 0600 "$USER_ID:$USER_GID"
    in_root chown "$USER_ID:$USER_GID" "$USER_HOME/.Quorvik"
    put "$PREFERENCES" <<EOF
<plist version="1.0"><dict><key>CurrentSet</key><string>/Sets/1</string><key>NetworkServices</key><dict>
<key>$SERVICE</key><dict><key>UserDefinedName</key><string>Quorvik</string></dict></dict><key>Sets</key><dict><key>1</key>
<dict><key>Network</key><dict><key>Global</key><dict><key>IPv4</key><dict><key>ServiceOrder</key><array><string>$SERVICE</string>
<string>Other-1</string></array></dict></dict><key>Service</key><dict><key>$SERVICE</key><dict><key>__LINK__</key>
<string>/NetworkServices/$SERVICE</string></dict></dict></dict></dict></dict></dict></plist>
EOF
}
# The data went to the Trash, still the user's, stamped in hexadecimal microseconds since 1970 between BEFORE and AFTER.
expect_trashed_data() {
    local trashed stamp ok=false
    expect_no_file "$USER_HOME/.Quorvik"
    find_one trashed "$USER_HOME/.Trash/Quorvik?UserData?*"
    expect_mode "$trashed/settings.plist" "600 $USER_ID:$USER_GID"
    [ $# = 0 ] && return
    stamp=${trashed##* }
    [[ $stamp =~ ^[0-9a-f]+$ ]] && (($1 <= 16#$stamp && 16#$stamp <= $2)) && ok=true
    e2e_check "stamp $stamp lies between $1 and $2" $ok
}
unloads() { grep -c '^/sbin/kextunload ' "$ROOT/.e2e/journal"; }

scenario "answered yes: every step in order, the package and its traces gone, the data in the Trash" --log
installed_package
# A listed driver with an identical copy stays: the list and the copy are gone before the cleanup looks.
kext "$EXTENSIONS/QuorvikModem.kext" 1300000000
kext "$LAUNCHER_APP/Contents/Drivers-Install/Drivers/QuorvikModem.kext" 1300000000
device_list QuorvikModem.kext | put "$LAUNCHER_APP/Contents/Resources/NetworkBlocker.xml"
# The deletion takes links away, never what they point to.
echo kept | put /Library/Kept/file
in_root ln -s /Library/Kept "$APP/Contents/Kept" || e2e_die "cannot link"
fake_ps
before=$(date +%s%6N)
launch --env DISPLAY=:5 -- --qvk-uninstall
after=$(date +%s%6N)
expect_status 0
expect_journal <<EOF
$QUESTION | uid=$USER_ID
/usr/bin/defaults [delete] [com.quorvik.Connect] | uid=0
/usr/bin/defaults [delete] [Quorvik.Updater] | uid=0
/usr/local/bin/ps [-A] [-o] [pid] [-o] [comm] | uid=0
/bin/launchctl [remove] [QVK Quorvik Connect] | uid=$USER_ID
/usr/local/bin/ps [axww] [-o] [pid,command] | uid=$USER_ID
/usr/bin/defaults [delete] [com.quorvik.Connect] | uid=$USER_ID
/usr/bin/defaults [delete] [Quorvik.Updater] | uid=$USER_ID
/usr/local/bin/ps [-A] [-o] [pid] [-o] [comm] | uid=$USER_ID
$RESTART
EOF
e2e_check "a process listed after a line without a number still sleeps" [ "$(awk '{ print $3 }' "/proc/$LATE_PID/stat")" = S ]
kill -KILL "$APP_PID"; wait "$APP_PID"
e2e_check "the application's process ended by the termination signal" [ $? = 143 ]
for gone in "$APP" "$UNINSTALLER" "$MODEM_SCRIPT" "${NEW_RECEIPTS[@]}"; do expect_no_file "$gone"; done
# From 10.6 on the old receipt scheme is left alone.
for kept in "$OLD_RECEIPT/Contents/Archive.bom" "$EXTENSIONS/QuorvikModem.kext" /Library/Kept/file; do expect_file "$kept"; done
expect_trashed_data "$before" "$after"
expect_no_line "$PREFERENCES" "<string>$SERVICE</string>"
for line in "uid: 0 euid: 0" "uid: $USER_ID euid: $USER_ID"; do expect_count 1 "$(main_log)" "Launcher_PerformCleanup: $line"; done
expect_count 1 "$(main_log)" "Launcher_DeleteApp: $APP"
expect_no_line "$(main_log)" "rename failed"

scenario "the question declined, even with the no-launch marker: status 0 and nothing changed"
marker "$USER_HOME/.Quorvik-NoLaunch-Brisel"
record_env DISPLAY
tool_status zenity 1
snapshot
launch --env DISPLAY=:5 -- --qvk-uninstall
expect_status 0
expect_journal <<<"$QUESTION | uid=$USER_ID DISPLAY=:5"
expect_unchanged

# Runs COMMAND in the root once the Launcher serves; the Launcher must then end by itself.
run_then() {
    launch --background --env DISPLAY=:5
    wait_until_serving || return
    in_root "$@" || e2e_die "cannot run $*"
    e2e_wait_end 10 || e2e_fail "the Launcher did not end after: $*"
}

scenario "dragged into the Trash: the package removes itself from there with its drivers, tells the user and ends" --log
installed_package
# Only a driver named with more than seven characters, installed and with a package copy of the same time, is the package's.
device_list Ab.kext Abc.kext Other.kext NoCopy.kext NotThere.kext ../Outside.kext | put "$APP/Contents/Resources/NetworkBlocker.xml"
for name in Ab Abc Other NoCopy; do kext "$EXTENSIONS/$name.kext" 1300000000; done
for name in Ab Abc NotThere ../Outside; do kext "$APP/Contents/Drivers-Install/Drivers/$name.kext" 1300000000; done
kext "$APP/Contents/Drivers-Install/Drivers/Other.kext" 1300000060
kext /System/Library/Outside.kext 1300000000
echo x | put /System/Libraries/Extensions.mkext
TRASHED="$USER_HOME/.Trash/Quorvik Connect.app"
run_then mv "$APP" "$TRASHED"
expect_status 0
expect_line "$(main_log)" "Unknown: <date>: Apple/../../../Framework/Library/Filesystem/Apple/FilesystemMonitor:172(Trace): -[QVK_Framework_FileMonitor QVK_Framework_FileMonitor_Triggered:]: $APP"
expect_line "$(main_log)" "Unknown: <date>: ../../Framework/Library/Basic/AutoCleanup:58(Trace): -[QVK_Framework_AutoCleanup QVK_Framework_AutoCleanup_IsTrashedApp:]: App is in \"$TRASHED\""
e2e_check "one driver unloaded" [ "$(unloads)" = 1 ]
expect_calls 1 --where uid=0 /sbin/kextunload "$EXTENSIONS/Abc.kext"
expect_calls 1 --where uid=0 /usr/bin/killall -HUP kextd
for name in Ab Other NoCopy; do expect_file "$EXTENSIONS/$name.kext/Contents/Info.plist"; done
for gone in "$EXTENSIONS/Abc.kext" /System/Libraries/Extensions.mkext "$MODEM_SCRIPT" "$AGENT"; do expect_no_file "$gone"; done
expect_file /System/Library/Outside.kext
expect_count 1 "$(main_log)" "(Errors): Launcher_PerformCleanup: Not a driver name: \"../Outside.kext\""
expect_trashed_data
expect_file "$TRASHED/Launcher.app/Contents/MacOS/Launcher"
expect_call --where "uid=$USER_ID" /bin/launchctl remove "QVK Quorvik Connect"
expect_count 1 /.e2e/journal "$RESTART"
expect_no_call /usr/bin/open

scenario "moved to another folder: this build's autostart key goes, the agent follows and the Launcher starts again from there"
record_env QUORVIKCRAP_INSTALLATIONMOVED
installed_package
DEFAULTS="$USER_HOME/Library/Preferences/com.quorvik.Launcher.plist"
e2e_plist_string_dict "QVK Autostart Installed 201104.120000" yes "QVK Autostart Installed 190101.000000" yes |
    put "$DEFAULTS" 0644 "$USER_ID:$USER_GID"
MOVED="/Applications/Quorvik/Quorvik Connect.app"
folder /Applications/Quorvik
run_then mv "$APP" "$MOVED"
expect_status 0
expect_calls 1 --where "uid=$USER_ID QUORVIKCRAP_INSTALLATIONMOVED=yes" /usr/bin/open -a "$MOVED/Launcher.app"
expect_no_line "$DEFAULTS" "201104.120000"
expect_line "$DEFAULTS" "	<key>QVK Autostart Installed 190101.000000</key>"
expect_line "$AGENT" "	<string>$MOVED/Launcher.app/Contents/MacOS/Launchd Skript</string>"
expect_call --where uid=0 /bin/launchctl remove "QVK Quorvik Connect"
expect_file "$MODEM_SCRIPT"
expect_no_call /usr/bin/zenity

scenario "deleted: the folder has no path, so a move to nowhere; the agent goes and is not made again"
record_env QUORVIKCRAP_INSTALLATIONMOVED
installed_package
run_then rm -rf "$APP"
expect_status 0
expect_calls 1 --where "uid=$USER_ID QUORVIKCRAP_INSTALLATIONMOVED=yes" /usr/bin/open -a "(null)/Launcher.app"
expect_no_file "$AGENT"

# From here on the package is installed under a name of one letter.
APP=/Applications/Q.app LAUNCHER_APP=/Applications/Q.app/Launcher.app EXE=/Applications/Q.app/Launcher.app/Contents/MacOS/Launcher

scenario "drivers only: marked folders and links go, everything else stays; then the caches, the uninstaller and the data" --log
installed_package
echo "<plist/>" | put "/Applications/Q DriversUninstaller.app/Contents/Info.plist"
driver Marked.kext "$APP/Contents/Drivers-Install/Drivers/Marked.kext"
# A mark that only begins with the application folder counts as well.
driver Longer.kext "$APP Old/Longer.kext"
driver Short.kext "/Applications/Q"
driver Foreign.kext "/Applications/Other.app/Contents/Foreign.kext"
driver Empty.kext ""
driver Plain.kext
# A dot in first or second place keeps a folder out, marked or not; a file is never a driver.
driver X.kext "$APP"
driver .Hidden.kext "$APP"
echo "$APP" | put "$EXTENSIONS/Stray"
BAD_DRIVER='Evil$(touch pwned)`touch pwned`.kext'
driver "$BAD_DRIVER" "$APP"
# Links count by their target, whatever their name.
in_root ln -s "$APP/Contents/Drivers/Linked.kext" "$EXTENSIONS/Y.kext" &&
    in_root ln -s /Library/Other/Elsewhere.kext "$EXTENSIONS/Elsewhere.kext" || e2e_die "cannot link the drivers"
launch -- --qvk-drivers-uninstall
expect_status 0
for name in Marked.kext Longer.kext Y.kext; do
    expect_calls 1 --where uid=0 /sbin/kextunload "$EXTENSIONS/$name"
    expect_no_file "$EXTENSIONS/$name"
done
e2e_check "three drivers unloaded" [ "$(unloads)" = 3 ]
e2e_check "the last call is killall, by root" [ "$(tail -n 1 "$ROOT/.e2e/journal")" = "/usr/bin/killall [-HUP] [kextd] | uid=0" ]
expect_only_calls /sbin/kextunload /usr/bin/killall
for name in Short.kext Foreign.kext Empty.kext Plain.kext X.kext .Hidden.kext "$BAD_DRIVER" Stray; do expect_file "$EXTENSIONS/$name"; done
e2e_check "the link to another package's driver stays" test -L "$ROOT$EXTENSIONS/Elsewhere.kext"
for gone in "${CACHES[@]}" "/Applications/Q DriversUninstaller.app" /pwned "$USER_HOME/pwned"; do expect_no_file "$gone"; done
expect_trashed_data
expect_count 1 "$(main_log)" "(Errors): Launcher_DriversCleanup: Not running \"rm -rf \"%s\"\" for \"$EXTENSIONS/$BAD_DRIVER\": the path cannot be quoted"

scenario "drivers only, none marked: no tool runs and the caches stay; the data still goes"
installed_package
driver Foreign.kext "/Applications/Other.app"
launch -- --qvk-drivers-uninstall
expect_status 0
expect_no_calls
for cache in "${CACHES[@]}"; do expect_file "$cache"; done
expect_trashed_data

# From here on the package is installed at a path the shell would run commands from.
APP=$BAD_APP LAUNCHER_APP="$BAD_APP/Launcher.app" EXE="$BAD_APP/Launcher.app/Contents/MacOS/Launcher"
scenario "on 10.5.0 from a path with shell metacharacters: the old receipts go, no process search, nothing run" --version 10.5.0 --log
installed_package
fake_ps
launch --env DISPLAY=:5 -- --qvk-uninstall
expect_status 0
for kept in "${NEW_RECEIPTS[@]}"; do expect_file "$kept"; done
for gone in "$OLD_RECEIPT" "$APP" "$USER_HOME/.Quorvik" /pwned "$USER_HOME/pwned"; do expect_no_file "$gone"; done
expect_calls 0 /usr/local/bin/ps -A -o pid -o comm
expect_count 2 "$(main_log)" "(Errors): Launcher_KillApp: Not looking for processes of \"$APP\": the path cannot be quoted"
expect_calls 2 /usr/bin/defaults delete com.quorvik.Connect
expect_count 1 /.e2e/journal "$RESTART"
