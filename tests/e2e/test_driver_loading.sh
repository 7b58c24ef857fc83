# Driver loading at start: which folders' entries reach /sbin/kextload, in which order, and the
# owners and modes left behind, inside the package and outside it.
source "$(dirname "$0")/lib.sh"

DRIVERS="$APP/Contents/Drivers"

# A driver bundle owned by the user with tight modes, as an unpacked download leaves it.
# Usage: user_driver PATH
user_driver() {
    echo "<plist/>" | put "$1/Contents/Info.plist" 0600 "$USER_ID:$USER_GID"
    in_root /bin/sh -c 'chown "$2" "$1" "$1/Contents" && chmod 0700 "$1" "$1/Contents"' sh "$1" "$USER_ID:$USER_GID" ||
        e2e_die "cannot make the driver $1"
}

# The loader's calls in journal order. Usage: expect_loaded PATH...
expect_loaded() {
    local got expected
    got=$(sed -n 's#^/sbin/kextload \[\(.*\)\] | .*#\1#p' "$ROOT/.e2e/journal")
    expected=$(printf '%s\n' "$@")
    e2e_check "kextload ran for: $(printf '%s|' "$@")" [ "$got" = "$expected" ]
    expect_only_calls /sbin/kextload
}

scenario "on 10.5.8 the 10_4 folders, then the general ones, are loaded in three passes" --version 10.5.8
for driver in Drivers-x86-10_4/Modem Drivers-x86-10_4-Demand/Later Drivers-10_4/Any Drivers-x86/Cpu \
    Drivers/Serial Drivers-x86-10_3/Old Drivers-ppc/Other; do
    user_driver "$DRIVERS/$driver.kext"
done
launch --background
wait_until_serving
stop_launcher
PASS=("$DRIVERS/Drivers-x86-10_4/Modem.kext" "$DRIVERS/Drivers-10_4/Any.kext" "$DRIVERS/Drivers-x86/Cpu.kext"
    "$DRIVERS/Drivers/Serial.kext")
expect_loaded "${PASS[@]}" "${PASS[@]}" "${PASS[@]}"
for driver in "${PASS[@]}" "$DRIVERS/Drivers-x86-10_4-Demand/Later.kext"; do
    expect_mode "$driver/Contents" "755 0:0"
    expect_mode "$driver/Contents/Info.plist" "644 0:0"
done
expect_mode "$DRIVERS/Drivers-x86-10_3/Old.kext/Contents/Info.plist" "600 $USER_ID:$USER_GID"
expect_mode "$DRIVERS/Drivers-ppc/Other.kext/Contents/Info.plist" "600 $USER_ID:$USER_GID"

scenario "on 11.0 the search steps down across major releases to 10_3, never below" --version 11.0.1
user_driver "$DRIVERS/Drivers-10_3/Old.kext"
user_driver "$DRIVERS/Drivers-10_2/Older.kext"
launch --background
wait_until_serving
stop_launcher
expect_loaded "$DRIVERS/Drivers-10_3/Old.kext" "$DRIVERS/Drivers-10_3/Old.kext" "$DRIVERS/Drivers-10_3/Old.kext"

scenario "links are followed only inside the package, a second name or a way back stops a driver; the loader runs as root"
user_driver "$APP/Contents/Shared/Shared.kext"
user_driver "$USER_HOME/Elsewhere.kext"
echo secret | put /Library/Preferences/secret.plist 0600 0:0
folder "$DRIVERS/Drivers"
in_root ln -s ../../Shared/Shared.kext "$DRIVERS/Drivers/Inside.kext"
in_root ln -s /Library/Preferences/secret.plist "$DRIVERS/Drivers/Secret.kext"
in_root ln -s "$USER_HOME/Elsewhere.kext" "$DRIVERS/Drivers/Elsewhere.kext"
user_driver "$DRIVERS/Drivers/Linked.kext"
in_root ln /Library/Preferences/secret.plist "$DRIVERS/Drivers/Linked.kext/Contents/Copy"
user_driver "$DRIVERS/Drivers/Loop.kext"
in_root ln -s .. "$DRIVERS/Drivers/Loop.kext/Contents/Up"
in_root ln -s . "$DRIVERS/Drivers/Self.Quorvik-Package"
marker /tmp/Quorvik-PleaseDoLog
launch --background
wait_until_serving
stop_launcher
expect_loaded "$DRIVERS/Drivers/Inside.kext" "$DRIVERS/Drivers/Inside.kext" "$DRIVERS/Drivers/Inside.kext"
expect_calls 3 --where uid=0 /sbin/kextload "$DRIVERS/Drivers/Inside.kext"
expect_mode "$APP/Contents/Shared/Shared.kext/Contents/Info.plist" "644 0:0"
expect_mode /Library/Preferences/secret.plist "600 0:0"
expect_mode "$USER_HOME/Elsewhere.kext/Contents/Info.plist" "600 $USER_ID:$USER_GID"
expect_line "$(main_log)" "Unknown: <date>: Drivers:171(Errors): QVK_Framework_SetDriverPermissions: \"$DRIVERS/Drivers/Secret.kext\" leads to \"/Library/Preferences/secret.plist\" outside \"$APP\"; left unchanged"
expect_line "$(main_log)" "Unknown: <date>: Drivers:176(Errors): QVK_Framework_SetDriverPermissions: \"$DRIVERS/Drivers/Linked.kext/Contents/Copy\" has 2 links; left unchanged"
expect_line "$(main_log)" "Unknown: <date>: Drivers:184(Errors): QVK_Framework_SetDriverPermissions: \"$DRIVERS/Drivers/Loop.kext/Contents/Up\" leads back into a folder being walked"
expect_line "$(main_log)" "Unknown: <date>: Drivers:104(Errors): LoadDrivers: \"$DRIVERS/Drivers/Self.Quorvik-Package\" leads back into a folder being walked"
expect_line "$(main_log)" "Unknown: <date>: Drivers:131(Trace): LoadDrivers: Executing \"/sbin/kextload \"$DRIVERS/Drivers/Inside.kext\"\""

scenario "a just-moved installation leaves the drivers alone, even with an empty QUORVIKCRAP_INSTALLATIONMOVED"
user_driver "$DRIVERS/Drivers/Serial.kext"
launch --background --env QUORVIKCRAP_INSTALLATIONMOVED=
wait_until_serving
stop_launcher
expect_no_call /sbin/kextload
expect_mode "$DRIVERS/Drivers/Serial.kext/Contents/Info.plist" "600 $USER_ID:$USER_GID"
