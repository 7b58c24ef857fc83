# "--qvk-uninstall" answered yes: the package, its receipts, preference domains, network service and
# running application go, the user's data goes to the Trash, and a restart is asked for.
source "$(dirname "$0")/lib.sh"

QUESTION=(/usr/bin/zenity --question --no-markup --default-cancel "--title=Quorvik Connect"
    "--text=Do you really want to deinstall Quorvik Connect?" --ok-label=Yes --cancel-label=No)
RESTART=(/usr/bin/zenity --info --no-markup "--title=Quorvik Connect"
    "--text=Quorvik Connect has been deinstalled, but some parts remain in the system until the next restart"
    --ok-label=OK)
PREFERENCES=/Library/Preferences/SystemConfiguration/preferences.plist
SERVICE=Quorvik_Connect-1
UNINSTALLER="/Applications/Quorvik Connect Uninstall.app"
MODEM_SCRIPT="/Library/Modem Scripts/Quorvik Virtual Modem"
NEW_RECEIPTS=(/var/db/receipts/com.quorvik.Connect.package.plist /var/db/receipts/com.quorvik.Connect.package.bom)
OLD_RECEIPT=/Library/Receipts/Quorvik.pkg

# A "ps" first on the Launcher's search path: it notes its call in the journal as the stand-ins do
# and lists the Launcher itself (its caller's caller) and the application's process APP_PID.
fake_ps() {
    put /usr/local/bin/ps 0755 <<EOF
#!/bin/sh
line=\$0
for arg; do line="\$line [\$arg]"; done
printf '%s | uid=%s\n' "\$line" "\$(/usr/bin/id -u)" >>/.e2e/journal
echo "  PID COMM"
echo "\$(cut -d' ' -f4 /proc/\$PPID/stat) $LAUNCHER_APP/Contents/MacOS/Launcher"
echo "$APP_PID $APP/Contents/MacOS/Quorvik Connect"
EOF
}

# The running application: a process of its own in the sandbox.
start_application() {
    in_root /bin/sleep 300 &
    APP_PID=$!
}

# The application's process ended by the termination signal.
expect_application_stopped() {
    local status
    wait "$APP_PID" 2>/dev/null
    status=$?
    e2e_check "the application's process got the termination signal (status $status)" [ "$status" = 143 ]
}

# The journal is exactly these lines. Usage: expect_journal LINE...
expect_journal() {
    local expected actual
    expected=$(printf '%s\n' "$@")
    actual=$(cat "$ROOT/.e2e/journal")
    if [ "$actual" = "$expected" ]; then
        e2e_pass "the journal holds the calls in order"
    else
        e2e_fail "the journal differs:"
        diff <(echo "$expected") <(echo "$actual") | sed 's/^/    /'
    fi
}

# A call's journal line. Usage: call UID TOOL ARG...
call() {
    local uid=$1
    shift
    printf '%s | uid=%s' "$(e2e_call_text "$@")" "$uid"
}

# FILE has exactly N lines containing TEXT. Usage: expect_count N FILE TEXT
expect_count() {
    local got
    got=$(grep -cF -- "$3" "$ROOT$2" 2>/dev/null)
    e2e_check "$2 has $1 lines with: $3 (got ${got:-0})" [ "${got:-0}" = "$1" ]
}

# The system network preferences with the package's service in the current set, twice in its
# order, and another service beside it.
network_preferences() {
    put "$PREFERENCES" <<EOF
<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0">
<dict>
	<key>CurrentSet</key>
	<string>/Sets/1</string>
	<key>NetworkServices</key>
	<dict>
		<key>Other-1</key>
		<dict><key>UserDefinedName</key><string>Other</string></dict>
		<key>$SERVICE</key>
		<dict><key>UserDefinedName</key><string>Quorvik</string></dict>
	</dict>
	<key>Sets</key>
	<dict>
		<key>1</key>
		<dict>
			<key>Network</key>
			<dict>
				<key>Global</key>
				<dict><key>IPv4</key><dict><key>ServiceOrder</key><array>
					<string>$SERVICE</string><string>Other-1</string><string>$SERVICE</string>
				</array></dict></dict>
				<key>Service</key>
				<dict>
					<key>Other-1</key>
					<dict><key>__LINK__</key><string>/NetworkServices/Other-1</string></dict>
					<key>$SERVICE</key>
					<dict><key>__LINK__</key><string>/NetworkServices/$SERVICE</string></dict>
				</dict>
			</dict>
		</dict>
	</dict>
</dict>
</plist>
EOF
}

# A device list with one device served by the given drivers. Usage: device_list DRIVER...
device_list() {
    echo '<?xml version="1.0" encoding="UTF-8"?>'
    echo '<plist version="1.0"><array><dict><key>Drivers</key><array>'
    printf '<string>%s</string>\n' "$@"
    echo '</array></dict></array></plist>'
}

# What the package left on the machine.
installed_package() {
    echo "<plist/>" | put "$UNINSTALLER/Contents/Info.plist"
    echo "script" | put "$MODEM_SCRIPT"
    local receipt
    for receipt in "${NEW_RECEIPTS[@]}" "$OLD_RECEIPT/Contents/Archive.bom"; do echo receipt | put "$receipt"; done
    # The old receipts belong to the administrators' group, of which the user is one, as on the
    # Mac: they are removed after the Launcher has become the user.
    in_root /bin/sh -c 'chown -R "0:$1" /Library/Receipts && chmod -R g+w /Library/Receipts' sh "$USER_GID" ||
        e2e_die "cannot hand the receipts to the administrators"
    echo "settings" | put "$USER_HOME/.Quorvik/settings.plist" 0600 "$USER_ID:$USER_GID"
    in_root chown "$USER_ID:$USER_GID" "$USER_HOME/.Quorvik"
    network_preferences
}

# The one "Quorvik UserData <stamp>" in the user's Trash; its sandbox path goes into VAR.
# Usage: trashed_data VAR
trashed_data() {
    local found=("$ROOT$USER_HOME/.Trash/Quorvik UserData "*)
    printf -v "$1" '%s' "${found[0]#"$ROOT"}"
    e2e_check "one data folder in the Trash (found: ${found[*]#"$ROOT"})" [ ${#found[@]} = 1 ]
}

# The data folder was moved to the Trash under a stamp taken during the run (microseconds since
# 1970 in hexadecimal), with its content and owner. Usage: expect_trashed_data BEFORE AFTER
expect_trashed_data() {
    local trashed stamp ok=false
    expect_no_file "$USER_HOME/.Quorvik"
    trashed_data trashed
    stamp=${trashed##* }
    [[ $stamp =~ ^[0-9a-f]+$ ]] && [ $((16#$stamp)) -ge "$1" ] && [ $((16#$stamp)) -le "$2" ] && ok=true
    e2e_check "stamp $stamp lies between $1 and $2" $ok
    expect_mode "$trashed/settings.plist" "600 $USER_ID:$USER_GID"
}

scenario "answered yes: every step in order, the package and its traces gone, the data in the Trash"
marker /tmp/Quorvik-PleaseDoLog
installed_package
# A driver listed by the package with an identical copy stays: the application folder, where the
# list and the copy lie, is gone before the cleanup looks at them.
echo "<plist/>" | put /System/Library/Extensions/QuorvikModem.kext/Contents/Info.plist
echo "<plist/>" | put "$LAUNCHER_APP/Contents/Drivers-Install/Drivers/QuorvikModem.kext/Contents/Info.plist"
device_list QuorvikModem.kext | put "$LAUNCHER_APP/Contents/Resources/NetworkBlocker.xml"
start_application
fake_ps
before=$(date +%s%6N)
launch --env DISPLAY=:5 -- --qvk-uninstall
after=$(date +%s%6N)
# Status 0, not 143: the Launcher, listed by "ps" twice, never signalled itself.
expect_status 0
# Root's preference domains, the application stopped, then as the user: the autostart entry's
# tidy-up, the user's domains, the application stopped again, the restart message.
expect_journal "$(call "$USER_ID" "${QUESTION[@]}")" \
    "$(call 0 /usr/bin/defaults delete com.quorvik.Connect)" \
    "$(call 0 /usr/bin/defaults delete Quorvik.Updater)" \
    "$(call 0 /usr/local/bin/ps -A -o pid -o comm)" \
    "$(call "$USER_ID" /bin/launchctl remove "QVK Quorvik Connect")" \
    "$(call "$USER_ID" /usr/local/bin/ps axww -o pid,command)" \
    "$(call "$USER_ID" /usr/bin/defaults delete com.quorvik.Connect)" \
    "$(call "$USER_ID" /usr/bin/defaults delete Quorvik.Updater)" \
    "$(call "$USER_ID" /usr/local/bin/ps -A -o pid -o comm)" \
    "$(call "$USER_ID" "${RESTART[@]}")"
expect_application_stopped
for gone in "$APP" "$UNINSTALLER" "$MODEM_SCRIPT" "${NEW_RECEIPTS[@]}"; do expect_no_file "$gone"; done
# From 10.6 on the old receipt scheme is left alone.
expect_file "$OLD_RECEIPT/Contents/Archive.bom"
expect_file /System/Library/Extensions/QuorvikModem.kext/Contents/Info.plist
expect_trashed_data "$before" "$after"
# The service left the current set and its order; its own entry stays.
expect_count 1 "$PREFERENCES" "<key>$SERVICE</key>"
expect_count 0 "$PREFERENCES" "<string>$SERVICE</string>"
expect_count 0 "$PREFERENCES" "/NetworkServices/$SERVICE"
expect_count 1 "$PREFERENCES" "<string>Other-1</string>"
expect_count 1 "$(main_log)" "Launcher_PerformCleanup: uid: 0 euid: 0"
expect_count 1 "$(main_log)" "Launcher_PerformCleanup: uid: $USER_ID euid: $USER_ID"
expect_count 1 "$(main_log)" "Launcher_DeleteApp: $APP"

scenario "on 10.5.8 both receipt schemes go" --version 10.5.8
installed_package
launch --env DISPLAY=:5 -- --qvk-uninstall
expect_status 0
for gone in "$APP" "${NEW_RECEIPTS[@]}" "$OLD_RECEIPT"; do expect_no_file "$gone"; done
expect_calls 1 "${RESTART[@]}"

scenario "a package path with shell metacharacters: no process search with it, logged; the rest runs to its end"
marker /tmp/Quorvik-PleaseDoLog
installed_package
BAD_APP='/Applications/Quorvik "$(touch pwned)" `touch pwned`.app'
in_root mv "$APP" "$BAD_APP" || e2e_die "cannot move the package"
SAVED=("$APP" "$LAUNCHER_APP" "$EXE")
APP=$BAD_APP LAUNCHER_APP="$BAD_APP/Launcher.app" EXE="$BAD_APP/Launcher.app/Contents/MacOS/Launcher"
start_application
fake_ps
launch --env DISPLAY=:5 -- --qvk-uninstall
expect_status 0
expect_calls 0 /usr/local/bin/ps -A -o pid -o comm
expect_count 2 "$(main_log)" "(Errors): Launcher_KillApp: Not looking for processes of \"$APP\": the path cannot be quoted"
expect_calls 2 /usr/bin/defaults delete com.quorvik.Connect
expect_calls 1 "${RESTART[@]}"
expect_no_file "$APP"
expect_no_file /pwned
expect_no_file "$USER_HOME/pwned"
expect_no_file "$USER_HOME/.Quorvik"
expect_count 0 "$PREFERENCES" "<string>$SERVICE</string>"
APP=${SAVED[0]} LAUNCHER_APP=${SAVED[1]} EXE=${SAVED[2]}
