# "--qvk-drivers-uninstall": the drivers marked as installed from this application folder are
# unloaded and deleted, the driver caches cleared, the drivers uninstaller deleted, and the user's
# data moved to the Trash. No question is asked.
source "$(dirname "$0")/lib.sh"

EXTENSIONS=/System/Library/Extensions
CACHES=(
    /System/Library/Caches/com.apple.kext.caches/Directories/System/Library/Extensions/KextIdentifiers.plist.gz
    /System/Library/Caches/com.apple.kext.caches/Directories/System/Library/Extensions/IOKitPersonalities_i386.ioplist.gz
    /System/Library/Extensions.mkext
    /System/Library/Extensions.kextcache
)
DRIVERS_UNINSTALLER="/Applications/Quorvik Connect DriversUninstaller.app"

# An installed driver folder, with a "Quorvik Source" mark when MARK is given. Usage: driver NAME [MARK]
driver() {
    echo "<plist/>" | put "$EXTENSIONS/$1/Contents/Info.plist"
    [ $# -ge 2 ] && printf '%s' "$2" | put "$EXTENSIONS/$1/Quorvik Source"
    return 0
}

# A link in the driver folder. Usage: driver_link NAME TARGET
driver_link() { in_root ln -s "$2" "$EXTENSIONS/$1" || e2e_die "cannot link $1"; }

user_data() {
    echo "settings" | put "$USER_HOME/.Quorvik/settings.plist" 0600 "$USER_ID:$USER_GID"
    in_root chown "$USER_ID:$USER_GID" "$USER_HOME/.Quorvik"
}

caches() { local cache; for cache in "${CACHES[@]}"; do echo cache | put "$cache"; done; }

# The one "Quorvik UserData <stamp>" in the user's Trash; its sandbox path goes into VAR.
# Usage: trashed_data VAR
trashed_data() {
    local found=("$ROOT$USER_HOME/.Trash/Quorvik UserData "*)
    printf -v "$1" '%s' "${found[0]#"$ROOT"}"
    e2e_check "one data folder in the Trash (found: ${found[*]#"$ROOT"})" [ ${#found[@]} = 1 ]
}

# The data folder is in the Trash, named with the time stamp, and still the user's.
expect_trashed_data() {
    local trashed
    expect_no_file "$USER_HOME/.Quorvik"
    trashed_data trashed
    expect_mode "$trashed/settings.plist" "600 $USER_ID:$USER_GID"
}

# The journal's last line is the call, by root. Usage: expect_last_call TOOL ARG...
expect_last_call() {
    local last
    last=$(tail -n 1 "$ROOT/.e2e/journal")
    e2e_check "the last call is $(e2e_call_text "$@") (got $last)" [ "$last" = "$(e2e_call_text "$@") | uid=0" ]
}

scenario "marked folders and links go, everything else stays; then the caches, the uninstaller and the data"
marker /tmp/Quorvik-PleaseDoLog
driver Marked.kext "$APP/Contents/Drivers-Install/Drivers/Marked.kext"
driver Longer.kext "$APP Old/Longer.kext"
driver Short.kext "/Applications/Quorvik"
driver Foreign.kext "/Applications/Other.app/Contents/Foreign.kext"
driver Empty.kext ""
driver Plain.kext
driver X.kext "$APP"
driver .Hidden.kext "$APP"
echo "<plist/>" | put "$APP/Contents/Drivers/Linked.kext/Contents/Info.plist"
driver_link Linked.kext "$APP/Contents/Drivers/Linked.kext"
echo "<plist/>" | put /Library/Other/Elsewhere.kext/Contents/Info.plist
driver_link Elsewhere.kext /Library/Other/Elsewhere.kext
caches
echo "<plist/>" | put "$DRIVERS_UNINSTALLER/Contents/Info.plist"
user_data
launch -- --qvk-drivers-uninstall
expect_status 0
for name in Marked.kext Longer.kext Linked.kext; do
    expect_calls 1 --where uid=0 /sbin/kextunload "$EXTENSIONS/$name"
    expect_no_file "$EXTENSIONS/$name"
done
e2e_check "three drivers unloaded" [ "$(grep -c '^/sbin/kextunload ' "$ROOT/.e2e/journal")" = 3 ]
expect_last_call /usr/bin/killall -HUP kextd
expect_only_calls /sbin/kextunload /usr/bin/killall
for name in Short.kext Foreign.kext Empty.kext Plain.kext X.kext .Hidden.kext; do
    expect_file "$EXTENSIONS/$name/Contents/Info.plist"
done
e2e_check "the link to another package's driver stays" test -L "$ROOT$EXTENSIONS/Elsewhere.kext"
expect_file "$APP/Contents/Drivers/Linked.kext/Contents/Info.plist"
for cache in "${CACHES[@]}"; do expect_no_file "$cache"; done
expect_no_file "$DRIVERS_UNINSTALLER"
expect_file "$EXE"
expect_trashed_data
expect_line "$(main_log)" "Unknown: <date>: Main:79(Trace): main: BRISEL Found --qvk-uninstall"

scenario "metacharacters: a driver path that cannot be quoted runs no command and is logged; the rest runs to its end"
marker /tmp/Quorvik-PleaseDoLog
BAD_APP='/Applications/Quorvik "$(touch pwned)" `touch pwned`.app'
in_root mv "$APP" "$BAD_APP" || e2e_die "cannot move the package"
SAVED=("$APP" "$LAUNCHER_APP" "$EXE")
APP=$BAD_APP LAUNCHER_APP="$BAD_APP/Launcher.app" EXE="$BAD_APP/Launcher.app/Contents/MacOS/Launcher"
BAD_DRIVER='Evil$(touch pwned)`touch pwned`.kext'
driver "$BAD_DRIVER" "$APP"
driver Good.kext "$APP/Contents/Drivers-Install/Drivers/Good.kext"
caches
user_data
launch -- --qvk-drivers-uninstall
expect_status 0
expect_calls 1 --where uid=0 /sbin/kextunload "$EXTENSIONS/Good.kext"
expect_no_file "$EXTENSIONS/Good.kext"
expect_file "$EXTENSIONS/$BAD_DRIVER/Contents/Info.plist"
expect_last_call /usr/bin/killall -HUP kextd
expect_only_calls /sbin/kextunload /usr/bin/killall
e2e_check "the refusals are logged" grep -qF -- \
    "(Errors): Launcher_DriversCleanup: Not running \"rm -rf \"%s\"\" for \"$EXTENSIONS/$BAD_DRIVER\": the path cannot be quoted" \
    "$ROOT$(main_log)"
for cache in "${CACHES[@]}"; do expect_no_file "$cache"; done
expect_no_file /pwned
expect_no_file "$USER_HOME/pwned"
expect_trashed_data
APP=${SAVED[0]} LAUNCHER_APP=${SAVED[1]} EXE=${SAVED[2]}
