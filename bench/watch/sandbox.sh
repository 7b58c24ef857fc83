# bench/compare's run inside the end-to-end sandbox root of tests/e2e/lib.sh: the installed package
# with the built Launcher, /usr/bin/open replaced by the marker program, and the driver (which owns
# the simulated bus) started there. Run by bench/compare as
#     bash sandbox.sh <built Launcher> <compare_driver> [driver options]
source "$(dirname "$0")/../../tests/e2e/lib.sh"

bin=$(dirname "$E2E_USB_BUS")
scenario "plug to launch, the Launcher beside the watchers a user could run instead"
put /usr/bin/open 0755 <"$bin/open_marker"
folder /.bench
install -m 0755 "$bin/compare_driver" "$bin/udev_watcher" "$E2E_SOURCE_DIR/../../bench/watch/udevadm_watcher.sh" \
    "$ROOT/.bench/" || e2e_die "cannot install the comparison's programs"
e2e_check "the comparison ran to its end" in_root /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin \
    LD_PRELOAD=libumockdev-preload.so.0 /.bench/compare_driver --launcher "$EXE" --app "$APP" \
    --watchers /.bench "${@:3}"
