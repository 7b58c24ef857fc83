source "$(dirname "$0")/lib.sh"

DRIVERS="$APP/Contents/Drivers"
# Driver bundles owned by the user with tight modes, as an unpacked download leaves them. Usage: user_driver PATH...
user_driver() {
    for d; do echo "<plist/>" | put "$d/Contents/Info.plist" 0600 "$USER_ID:$USER_GID"; done
    in_root /bin/sh -c 'o=$1 && shift && for d; do chown "$o" "$d" "$d/Contents" && chmod 0700 "$d" "$d/Contents" || exit; done' \
        sh "$USER_ID:$USER_GID" "$@" || e2e_die "cannot make the drivers $*"
}
# The loader's calls in journal order: each driver three times. Usage: expect_loaded PATH...
expect_loaded() {
    local got=$(sed -n 's#^/sbin/kextload \[\(.*\)\] | .*#\1#p' "$ROOT/.e2e/journal")
    e2e_check "kextload ran three times for: $(printf '%s|' "$@")" [ "$got" = "$(printf '%s\n' "$@" "$@" "$@")" ]
    expect_only_calls /sbin/kextload
}

scenario "on 10.5.8 the 10_4 folders, then the general ones, are loaded in three passes" --version 10.5.8
user_driver "$DRIVERS"/{Drivers-x86-10_4/Modem,Drivers-x86-10_4-Demand/Later,Drivers-10_4/Any,Drivers-x86/Cpu}.kext \
    "$DRIVERS"/{Drivers/Serial,Drivers-x86-10_3/Old,Drivers-ppc/Other}.kext
serve
PASS=("$DRIVERS"/{Drivers-x86-10_4/Modem,Drivers-10_4/Any,Drivers-x86/Cpu,Drivers/Serial}.kext)
expect_loaded "${PASS[@]}"
for driver in "${PASS[@]}" "$DRIVERS/Drivers-x86-10_4-Demand/Later.kext"; do
    expect_mode "$driver/Contents" "755 0:0"
    expect_mode "$driver/Contents/Info.plist" "644 0:0"
done
for driver in Drivers-x86-10_3/Old Drivers-ppc/Other; do expect_mode "$DRIVERS/$driver.kext/Contents/Info.plist" "600 $USER_ID:$USER_GID"; done

scenario "on 11.0 the search steps down across major releases to 10_3, never below" --version 11.0.1
user_driver "$DRIVERS/Drivers-10_3/Old.kext" "$DRIVERS/Drivers-10_2/Older.kext"
serve
expect_loaded "$DRIVERS/Drivers-10_3/Old.kext"

scenario "links are followed only inside the package, a second name or a way back stops a driver; the loader runs as root" --log
user_driver "$APP/Contents/Shared/Shared.kext" "$USER_HOME/Elsewhere.kext" "$DRIVERS"/Drivers/{Linked,Loop}.kext
echo secret | put /Library/Preferences/secret.plist 0600 0:0
in_root /bin/sh -c 'cd "$1" && ln -s ../../Shared/Shared.kext Inside.kext && ln -s /Library/Preferences/secret.plist Secret.kext &&
    ln -s "$2/Elsewhere.kext" Elsewhere.kext && ln /Library/Preferences/secret.plist Linked.kext/Contents/Copy &&
    ln -s .. Loop.kext/Contents/Up && ln -s . Self.Quorvik-Package' sh "$DRIVERS/Drivers" "$USER_HOME" || e2e_die "cannot link"
serve
expect_loaded "$DRIVERS/Drivers/Inside.kext"
expect_calls 3 --where uid=0 /sbin/kextload "$DRIVERS/Drivers/Inside.kext"
expect_mode "$APP/Contents/Shared/Shared.kext/Contents/Info.plist" "644 0:0"
expect_mode /Library/Preferences/secret.plist "600 0:0"
expect_mode "$USER_HOME/Elsewhere.kext/Contents/Info.plist" "600 $USER_ID:$USER_GID"
PREFIX="Unknown: <date>: Drivers"
expect_line "$(main_log)" "$PREFIX:171(Errors): QVK_Framework_SetDriverPermissions: \"$DRIVERS/Drivers/Secret.kext\" leads to \"/Library/Preferences/secret.plist\" outside \"$APP\"; left unchanged"
expect_line "$(main_log)" "$PREFIX:176(Errors): QVK_Framework_SetDriverPermissions: \"$DRIVERS/Drivers/Linked.kext/Contents/Copy\" has 2 links; left unchanged"
expect_line "$(main_log)" "$PREFIX:184(Errors): QVK_Framework_SetDriverPermissions: \"$DRIVERS/Drivers/Loop.kext/Contents/Up\" leads back into a folder being walked"
expect_line "$(main_log)" "$PREFIX:104(Errors): LoadDrivers: \"$DRIVERS/Drivers/Self.Quorvik-Package\" leads back into a folder being walked"
expect_line "$(main_log)" "$PREFIX:131(Trace): LoadDrivers: Executing \"/sbin/kextload \"$DRIVERS/Drivers/Inside.kext\"\""

scenario "a just-moved installation leaves the drivers alone, even with an empty QUORVIKCRAP_INSTALLATIONMOVED"
user_driver "$DRIVERS/Drivers/Serial.kext"
serve --env QUORVIKCRAP_INSTALLATIONMOVED=
expect_no_call /sbin/kextload
expect_mode "$DRIVERS/Drivers/Serial.kext/Contents/Info.plist" "600 $USER_ID:$USER_GID"
