# End-to-end harness: the built Launcher in a sandbox root shaped like a Mac (see README.md).
set -u
shopt -s nullglob
E2E_SOURCE_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

e2e_die() { echo "FAIL: $*" >&2 && exit 1; }
e2e_poll() {
    local deadline=$((SECONDS + $1)) && shift
    until "$@"; do [ $SECONDS -le $deadline ] && sleep 0.05 || return 1; done
}

[ $# -ge 1 ] || e2e_die "usage: bash $0 <built Launcher executable> [<usb bus helper>]"
E2E_BUILT_EXE=$(realpath -e -- "$1" 2>/dev/null) || e2e_die "no built Launcher at '$1'"
E2E_BUILT_BUNDLE=$(realpath -e -- "$(dirname "$E2E_BUILT_EXE")/../..") || e2e_die "no bundle around $E2E_BUILT_EXE"
E2E_USB_BUS=""
[ $# -ge 2 ] && { E2E_USB_BUS=$(realpath -e -- "$2") || e2e_die "no usb bus helper at '$2'"; }

if [ -z "${QVK_E2E_BASE:-}" ]; then
    [ "$(id -u)" = 0 ] || e2e_die "the end-to-end scenarios need root (mount namespace, overlay, chroot); run them as root"
    E2E_OUTER=$(mktemp -d /tmp/qvk-e2e.XXXXXX) || e2e_die "cannot make a mount point"
    trap 'rm -f "$E2E_OUTER/.entered"; rmdir "$E2E_OUTER" 2>/dev/null' EXIT
    trap 'exit 143' TERM INT
    QVK_E2E_BASE=$E2E_OUTER unshare --mount --pid --fork --kill-child --mount-proc --propagation private bash "$0" "$@"
    status=$?
    [ -e "$E2E_OUTER/.entered" ] || e2e_die "could not make a private mount and pid namespace (unshare failed, status $status)"
    exit $status
fi
# Process 1 of its own pid namespace, so `kill -1` reaches only the scenario's processes.
[ "$$" = 1 ] || e2e_die "the harness must run as process 1 of a fresh pid namespace"
touch "$QVK_E2E_BASE/.entered"
mount -t tmpfs -o mode=0755 qvk-e2e "$QVK_E2E_BASE" || e2e_die "cannot mount a tmpfs on $QVK_E2E_BASE"

APP="/Applications/Quorvik Connect.app" LAUNCHER_APP="/Applications/Quorvik Connect.app/Launcher.app"
EXE="$LAUNCHER_APP/Contents/MacOS/Launcher"
USER_NAME=maria USER_ID=501 USER_GID=50 USER_HOME=/Users/maria
ROOT="" PID="" STATUS="" PLUGGED="" E2E_SCENARIOS=0 E2E_CHECKS=0 E2E_FAILED=0 E2E_SCENARIO_FAILED=0
E2E_USB_IN="" E2E_USB_OUT="" E2E_USB_DIR="" E2E_USB_COUNT=0
# The system calls in which the run loop waits for its next event: poll and ppoll.
case "$(uname -m)" in
x86_64) E2E_POLL_CALLS="7 271" ;; aarch64) E2E_POLL_CALLS="73" ;; i?86) E2E_POLL_CALLS="168 309" ;;
*) e2e_die "no poll system call numbers known for $(uname -m)" ;;
esac

in_root() { chroot "$ROOT" "$@"; }
# Through the root's own view of PATH, so that no link in the host's tree redirects the write.
put() {
    in_root /bin/sh -c 'rm -f -- "$1" && mkdir -p -- "$(dirname -- "$1")" && cat > "$1" && chmod "$2" "$1" && chown "$3" "$1"' \
        put "$1" "${2:-0644}" "${3:-0:0}" || e2e_die "cannot write $1 in the sandbox"
}
folder() {
    local owner=0:0 && [ "$1" = --owner ] && owner=$2 && shift 2
    in_root /bin/sh -c 'owner=$1; shift; mkdir -p -- "$@" && chown "$owner" "$@"' folder "$owner" "$@" ||
        e2e_die "cannot make folders $*"
}
marker() {
    local owner=0:0
    [[ $1 == "$USER_HOME"/* ]] && owner=$USER_ID:$USER_GID
    printf '%s' "${2:-}" | put "$1" 0644 "$owner"
}
not_administrator() { for g in admin sudo wheel; do in_root gpasswd -d "$USER_NAME" "$g" >/dev/null 2>&1; done; }
tool_status() { echo "$2" | put "/.e2e/status/$1"; }
record_env() { echo "$*" | put /.e2e/record-env; }
e2e_plist_string_dict() { printf '<plist version="1.0"><dict>%s</dict></plist>\n' "$(printf '<key>%s</key><string>%s</string>' "$@")"; }

e2e_teardown() {
    [ -n "$ROOT" ] || return 0
    { kill -KILL -1 && wait; } 2>/dev/null
    E2E_USB_IN="" E2E_USB_OUT="" E2E_USB_DIR="" E2E_USB_COUNT=0
    grep -q -E '^==[0-9]+==ERROR: |runtime error: ' "$ROOT/.e2e/launcher.out" 2>/dev/null &&
        e2e_fail "the Launcher's output holds a sanitizer report"
    if [ "$E2E_SCENARIO_FAILED" != 0 ]; then
        for f in "$ROOT/.e2e/journal" "$ROOT/.e2e/launcher.out" "$ROOT"/tmp/Quorvik* "$ROOT$USER_HOME"/Quorvik*; do
            echo "  --- ${f#"$ROOT"}:" && awk '{ print "    " $0 }' "$f" 2>/dev/null
        done
    fi
    umount -R "$ROOT" 2>/dev/null || umount -R -l "$ROOT"
    rm -rf "${ROOT%/root}" && ROOT=""
}
e2e_finish() {
    local code=$? && e2e_teardown
    [ "$code" = 0 ] || e2e_die "the harness stopped early (status $code) after $E2E_SCENARIOS scenarios"
    echo "== $E2E_SCENARIOS scenarios, $E2E_CHECKS checks, $E2E_FAILED failed"
    [ "$E2E_CHECKS" != 0 ] || e2e_die "nothing was checked"
    exit $((E2E_FAILED != 0))
}
trap e2e_finish EXIT

scenario() {
    e2e_teardown
    local title=$1 version=10.6.8 log=0 dir && shift
    while [ $# -gt 0 ]; do
        case "$1" in
        --version) version=$2 && shift ;; --no-version) version="" ;; --log) log=1 ;;
        *) e2e_die "scenario: unknown option $1" ;;
        esac
        shift
    done
    E2E_SCENARIOS=$((E2E_SCENARIOS + 1)) E2E_SCENARIO_FAILED=0 PID="" STATUS="" && echo "== $title"
    dir="$QVK_E2E_BASE/s$E2E_SCENARIOS" ROOT="$QVK_E2E_BASE/s$E2E_SCENARIOS/root"
    mkdir -p "$dir/upper" "$dir/work" "$ROOT" || e2e_die "cannot make $dir"
    mount -t overlay overlay -o "lowerdir=/,upperdir=$dir/upper,workdir=$dir/work" "$ROOT" &&
        mount -t proc proc "$ROOT/proc" && mount --rbind /dev "$ROOT/dev" && mount --rbind /sys "$ROOT/sys" &&
        mount -t tmpfs -o mode=1777 qvk-e2e-tmp "$ROOT/tmp" || e2e_die "cannot mount the sandbox root $ROOT"
    mkdir -m 0755 "$ROOT/.e2e" "$ROOT/.e2e/status" && install -m 0666 /dev/null "$ROOT/.e2e/journal"
    in_root /bin/sh -c 'sed -i -e "/^$1:/d" -e "/^[^:]*:[^:]*:$2:/d" /etc/passwd && echo "$1:x:$2:$3:Maria:$4:/bin/sh" >>/etc/passwd' \
        sh "$USER_NAME" "$USER_ID" "$USER_GID" "$USER_HOME" || e2e_die "cannot add the user $USER_NAME"
    not_administrator; in_root gpasswd -a "$USER_NAME" sudo >/dev/null || e2e_die "cannot make $USER_NAME an administrator"
    folder --owner "$USER_ID:$USER_GID" "$USER_HOME" "$USER_HOME/Library" "$USER_HOME/Library/Preferences" \
        "$USER_HOME/Library/LaunchAgents" "$USER_HOME/.Trash"
    folder /Applications /System/Library/Extensions /System/Library/CoreServices /Library/Preferences/SystemConfiguration \
        /Library/Receipts /Library/LaunchAgents /Library/LaunchDaemons /Library/Extensions "/Library/Modem Scripts"
    [ -n "$version" ] && e2e_plist_string_dict ProductVersion "$version" | put /System/Library/CoreServices/SystemVersion.plist
    folder "$APP/Contents/Resources"
    e2e_plist_string_dict CFBundleDisplayName "Quorvik Connect" CFBundleName Quorvik \
        CFBundleIdentifier com.quorvik.Connect CFBundleVersion "3.2 201104.120000" | put "$APP/Contents/Info.plist"
    cp -R "$E2E_BUILT_BUNDLE" "$ROOT$LAUNCHER_APP" && in_root /bin/sh -c 'chown -R 0:0 "$1" && chmod 04755 "$2"' sh \
        "$LAUNCHER_APP" "$EXE" || e2e_die "cannot install the Launcher set-user-id root"
    for tool in /sbin/kextload /sbin/kextunload /usr/bin/open /usr/bin/defaults /bin/launchctl /usr/bin/killall \
        /usr/bin/zenity /usr/bin/kdialog; do put "$tool" 0755 <"$E2E_SOURCE_DIR/standin.sh"; done
    [ "$log" = 0 ] || marker /tmp/Quorvik-PleaseDoLog
}

launch() {
    local as=user background=0 name user=()
    local env=(PATH=/usr/local/bin:/usr/bin:/bin "HOME=$USER_HOME" "USER=$USER_NAME" "LOGNAME=$USER_NAME")
    while [ $# -gt 0 ]; do
        case "$1" in
        --as) as=$2 && shift ;; --env) env+=("$2") && shift ;; --background) background=1 ;;
        --unset) for name in "${!env[@]}"; do [[ ${env[$name]} == "$2="* ]] && unset "env[$name]"; done; shift ;;
        --) shift && break ;;
        *) e2e_die "launch: unknown option $1" ;;
        esac
        shift
    done
    if [ "$as" = user ]; then
        [ -z "$E2E_USB_DIR" ] || e2e_die "launch: with the simulated USB bus the Launcher must be started --as root"
        user=(--userspec="$USER_ID:$USER_GID" --groups="$USER_GID")
    else
        [ -n "$E2E_USB_DIR" ] || e2e_usb_start
        env+=(LD_PRELOAD=libumockdev-preload.so.0 "UMOCKDEV_DIR=$E2E_USB_DIR")
    fi
    # setsid: no controlling terminal, even when a developer runs the file from one.
    setsid chroot "${user[@]}" "$ROOT" /usr/bin/env -i "${env[@]}" "$EXE" "$@" \
        </dev/null >>"$ROOT/.e2e/launcher.out" 2>&1 &
    PID=$! STATUS=""
    [ "$background" = 1 ] || e2e_wait_end 10 || e2e_fail "the Launcher did not end within 10 s (killed)"
}
# A finished Launcher that was not collected yet does not count.
e2e_alive() { local s && s=$(cat "/proc/$PID/stat" 2>/dev/null) && s=${s##*) } && [ "${s:0:1}" != Z ]; }
e2e_ended() { ! e2e_alive; }
e2e_wait_end() {
    local ended=0
    e2e_poll "$1" e2e_ended && ended=1 || kill -KILL "$PID" 2>/dev/null
    wait "$PID" 2>/dev/null
    STATUS=$? && [ $ended = 1 ]
}
stop_launcher() {
    local running=false && e2e_alive && running=true && kill -TERM "$PID"
    e2e_wait_end 5
    e2e_check "still running until stopped, not ended by itself (status $STATUS)" $running
}
wait_until_serving() {
    E2E_SEEN=0 && e2e_poll 10 e2e_serving_or_ended
    e2e_check "serving its run loop" [ $E2E_SEEN = 2 ]
    [ $E2E_SEEN = 2 ]
}
# Seen in poll twice in a row (a pass of the loop with work still pending does not count), or ended.
e2e_serving_or_ended() {
    local call && e2e_alive || return 0
    read -r call _ <"/proc/$PID/syscall" 2>/dev/null
    if [[ " $E2E_POLL_CALLS " == *" ${call:-none} "* ]]; then E2E_SEEN=$((E2E_SEEN + 1)); else E2E_SEEN=0; fi
    [ $E2E_SEEN = 2 ]
}
serve() { launch --background "$@"; wait_until_serving; stop_launcher; }
main_log() { echo "/tmp/Quorvik.Log.$PID"; }
type_log() { echo "/tmp/Quorvik.Log.$PID.$1"; }
wait_for_call() { e2e_poll 10 e2e_called "$@"; expect_call "$@"; }

e2e_usb_start() {
    [ -n "$E2E_USB_BUS" ] || e2e_die "USB scenarios need the bus helper: bash $0 <Launcher> <e2e_usb_bus>"
    install -m 0755 "$E2E_USB_BUS" "$ROOT/.e2e/usb_bus" || e2e_die "cannot copy the USB bus helper"
    coproc E2E_USB { exec chroot "$ROOT" /usr/bin/env LD_PRELOAD=libumockdev-preload.so.0 /.e2e/usb_bus 2>>"$ROOT/.e2e/usb_bus.out"; }
    local word && E2E_USB_OUT=${E2E_USB[0]} E2E_USB_IN=${E2E_USB[1]}
    read -r -t 10 -u "$E2E_USB_OUT" word E2E_USB_DIR && [ "$word" = ready ] && [ -n "$E2E_USB_DIR" ] ||
        e2e_die "the simulated USB bus did not start: $(cat "$ROOT/.e2e/usb_bus.out")"
}
e2e_usb_command() {
    local answer rest && echo "$1" >&"$E2E_USB_IN"
    read -r -t 10 -u "$E2E_USB_OUT" answer rest && [ "$answer" = ok ] ||
        e2e_die "the simulated USB bus refused '$1': ${answer:-no answer} ${rest:-}"
}
plug() {
    [ -n "$E2E_USB_DIR" ] || [ -n "$PID" ] || e2e_usb_start
    [ -n "$E2E_USB_DIR" ] || e2e_die "plug: the Launcher was started without the simulated USB bus (use launch --as root)"
    E2E_USB_COUNT=$((E2E_USB_COUNT + 1)) PLUGGED=usb$E2E_USB_COUNT
    e2e_usb_command "add $PLUGGED $1 $2"
}
unplug() { e2e_usb_command "remove $1"; }

e2e_fail() { E2E_CHECKS=$((E2E_CHECKS + 1)) E2E_FAILED=$((E2E_FAILED + 1)) E2E_SCENARIO_FAILED=1 && echo "  FAIL  $*"; }
e2e_check() { if "${@:2}"; then E2E_CHECKS=$((E2E_CHECKS + 1)) && echo "  ok    $1"; else e2e_fail "$1"; fi; }
expect_status() { e2e_check "exit status $1 (got ${STATUS:-none})" [ "${STATUS:-}" = "$1" ]; }
expect_file() { e2e_check "$1 exists" test -e "$ROOT$1"; }
expect_no_file() { e2e_check "no $1" test ! -e "$ROOT$1"; }
# FILE's lines, the loggers' dates "16.11. 01:10:24.123" (main) and "11/16 01:10:24.123" (depth) as <date>.
e2e_lines() {
    sed -E -e 's#[0-9]{2}\.[0-9]{2}\. [0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3}#<date>#' \
        -e 's#^[0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3}#<date>#' "$ROOT$1" 2>/dev/null
}
expect_line() { e2e_check "$1: $2" e2e_has_line "$1" "$2"; }
e2e_has_line() { e2e_lines "$1" | grep -qxF -- "$2"; }
expect_no_line() { e2e_check "$1 lacks lines with: $2" e2e_lacks_text "$1" "$2"; }
e2e_lacks_text() { ! grep -qF -- "$2" "$ROOT$1" 2>/dev/null; }
expect_head() {
    local actual=$(e2e_lines "$1" | head -n $(($# - 1)))
    e2e_check "$1 begins with: $(printf '%s|' "${@:2}")" [ "$actual" = "$(printf '%s\n' "${@:2}")" ]
}
expect_no_files() {
    local found
    eval "found=(\"\$ROOT\"$1)"
    e2e_check "no file like $1 (found: ${found[*]#"$ROOT"})" [ ${#found[@]} = 0 ]
}
find_one() {
    local found=("$ROOT"$2)
    printf -v "$1" '%s' "${found[0]#"$ROOT"}"
    e2e_check "one file like $2 (found: ${found[*]#"$ROOT"})" [ ${#found[@]} = 1 ]
}

e2e_call_text() { printf '%s' "$1" && [ $# = 1 ] || printf ' [%s]' "${@:2}"; }
# Journal lines "TOOL [ARG]... | DETAILS" whose details hold every word of --where.
e2e_count_calls() {
    local where=""
    [ "$1" = --where ] && { where=$2 && shift 2; }
    # Through the environment, where awk leaves backslashes alone.
    E2E_CALL=$(e2e_call_text "$@") E2E_WHERE=$where awk 'BEGIN { words = split(ENVIRON["E2E_WHERE"], word, " ") }
        { at = index($0, " | "); if (substr($0, 1, at - 1) != ENVIRON["E2E_CALL"]) next
          for (w = 1; w <= words; w++) if (!index(" " substr($0, at + 3) " ", " " word[w] " ")) next
          n++ }
        END { print n + 0 }' "$ROOT/.e2e/journal"
}
expect_call() { e2e_check "called: $*" e2e_called "$@"; }
e2e_called() { [ "$(e2e_count_calls "$@")" -ge 1 ]; }
expect_calls() {
    local got=$(e2e_count_calls "${@:2}")
    e2e_check "called $1 times (got $got): ${*:2}" [ "$got" = "$1" ]
}
expect_no_call() { e2e_check "never called: $1" awk -v tool="$1" '$1 == tool { exit 1 }' "$ROOT/.e2e/journal"; }
expect_only_calls() {
    e2e_check "no tool but $* was run" awk -v tools=" $* " 'index(tools, " " $1 " ") == 0 { exit 1 }' "$ROOT/.e2e/journal"
}
expect_no_calls() { e2e_check "no tool was run" [ ! -s "$ROOT/.e2e/journal" ]; }

expect_command_line() {
    local got=$(tr '\0' '\n' <"/proc/$PID/cmdline" | sed 's/.*/[&]/' | tr -d '\n')
    e2e_check "runs as $(printf '[%s]' "$@") (got $got)" [ "$got" = "$(printf '[%s]' "$@")" ]
}
expect_mode() {
    local got=$(in_root stat -c '%a %u:%g' -- "$1")
    e2e_check "$1 is $2 (got $got)" [ "$got" = "$2" ]
}
e2e_tree() { in_root /usr/bin/find /Applications /Library /System /Users -printf '%p %m %u:%g %s\n' 2>/dev/null | sort; }
snapshot() { E2E_SNAPSHOT=$(e2e_tree); }
expect_unchanged() { e2e_same "the file system is unchanged" "$E2E_SNAPSHOT" "$(e2e_tree)"; }
# The text ACTUAL is EXPECTED; the difference is shown when not. Usage: e2e_same DESCRIPTION EXPECTED ACTUAL
e2e_same() {
    e2e_check "$1" [ "$3" = "$2" ]
    [ "$3" = "$2" ] || diff <(echo "$2") <(echo "$3") | sed 's/^/    /'
}
