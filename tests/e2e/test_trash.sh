# The running Launcher watches the application folder: dragged into the Trash the package removes
# itself; moved elsewhere, the autostart agent follows and the Launcher starts again from there.
source "$(dirname "$0")/lib.sh"

AGENT="$USER_HOME/Library/LaunchAgents/Quorvik Connect.plist"
MODEM_SCRIPT="/Library/Modem Scripts/Quorvik Virtual Modem"
RECEIPT=/var/db/receipts/com.quorvik.Connect.package.plist
RESTART=(/usr/bin/zenity --info --no-markup "--title=Quorvik Connect"
    "--text=Quorvik Connect has been deinstalled, but some parts remain in the system until the next restart"
    --ok-label=OK)

# What the installation left on the machine, and the user's agent for the installed place.
installed_package() {
    echo script | put "$MODEM_SCRIPT"
    echo receipt | put "$RECEIPT"
    echo settings | put "$USER_HOME/.Quorvik/settings.plist" 0600 "$USER_ID:$USER_GID"
    in_root chown "$USER_ID:$USER_GID" "$USER_HOME/.Quorvik"
    agent "$LAUNCHER_APP" | put "$AGENT" 0644 "$USER_ID:$USER_GID"
}

# The agent file as it is written for the launcher bundle BUNDLE. Usage: agent BUNDLE
agent() {
    cat <<EOF
<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
	<key>Label</key>
	<string>QVK Quorvik Connect</string>
	<key>OnDemand</key>
	<false/>
	<key>Program</key>
	<string>$1/Contents/MacOS/Launchd Skript</string>
	<key>RunAtLoad</key>
	<true/>
	<key>WorkingDirectory</key>
	<string>$1</string>
</dict>
</plist>
EOF
}

# Starts the Launcher, waits until it serves, and moves the application folder to TO (its folder
# made first when missing); the Launcher must then end by itself. Usage: run_and_move TO
run_and_move() {
    launch --background --env DISPLAY=:5
    wait_until_serving || return
    [ -d "$ROOT$(dirname "$1")" ] || folder "$(dirname "$1")"
    in_root mv "$APP" "$1" || e2e_die "cannot move the application"
    e2e_wait_end 10 || e2e_fail "the Launcher did not end after the application was moved"
}

# The Launcher replaced itself by "/usr/bin/open -a" with the launcher at its new place, run as the user.
# Usage: expect_restart LAUNCHER
expect_restart() {
    expect_status 0
    expect_calls 1 --where "uid=$USER_ID QUORVIKCRAP_INSTALLATIONMOVED=yes" /usr/bin/open -a "$1"
}

# The agent file is exactly what is written for BUNDLE, and the user's. Usage: expect_agent BUNDLE
expect_agent() {
    e2e_check "the agent points at $1" [ "$(agent "$1")" = "$(cat "$ROOT$AGENT")" ]
    expect_mode "$AGENT" "644 $USER_ID:$USER_GID"
}

scenario "dragged into the Trash: the package removes itself from there, tells the user and ends"
marker /tmp/Quorvik-PleaseDoLog
installed_package
TRASHED="$USER_HOME/.Trash/Quorvik Connect.app"
run_and_move "$TRASHED"
expect_status 0
expect_line "$(main_log)" "Unknown: <date>: Apple/../../../Framework/Library/Filesystem/Apple/FilesystemMonitor:172(Trace): -[QVK_Framework_FileMonitor QVK_Framework_FileMonitor_Triggered:]: $APP"
expect_line "$(main_log)" "Unknown: <date>: ../../Framework/Library/Basic/AutoCleanup:58(Trace): -[QVK_Framework_AutoCleanup QVK_Framework_AutoCleanup_IsTrashedApp:]: App is in \"$TRASHED\""
for gone in "$MODEM_SCRIPT" "$RECEIPT" "$AGENT" "$USER_HOME/.Quorvik"; do expect_no_file "$gone"; done
find_one DATA "$USER_HOME/.Trash/Quorvik?UserData?*"
expect_file "$TRASHED/Launcher.app/Contents/MacOS/Launcher"
expect_call --where "uid=$USER_ID" /bin/launchctl remove "QVK Quorvik Connect"
expect_calls 1 --where "uid=$USER_ID" "${RESTART[@]}"
expect_no_call /usr/bin/open

scenario "moved to another folder: the agent follows and the Launcher starts again from there"
record_env QUORVIKCRAP_INSTALLATIONMOVED
installed_package
MOVED="/Applications/Quorvik/Quorvik Connect.app"
run_and_move "$MOVED"
expect_restart "$MOVED/Launcher.app"
expect_agent "$MOVED/Launcher.app"
expect_call --where uid=0 /bin/launchctl remove "QVK Quorvik Connect"
expect_file "$MODEM_SCRIPT"
expect_file "$RECEIPT"
expect_no_call /usr/bin/zenity

scenario "deleted: the folder has no path, so a move to nowhere; the agent goes and is not made again"
record_env QUORVIKCRAP_INSTALLATIONMOVED
installed_package
launch --background
wait_until_serving
in_root rm -rf "$APP" || e2e_die "cannot delete the application"
e2e_wait_end 10 || e2e_fail "the Launcher did not end after the application was deleted"
expect_restart "(null)/Launcher.app"
expect_no_file "$AGENT"
expect_file "$MODEM_SCRIPT"
