# End-to-end harness: runs the built Launcher, unmodified, in a sandbox root shaped like the Mac it
# was made for, and checks what it leaves behind.

# A scenario file sources this library and is run as
#     bash test_something.sh <built Launcher executable> [<usb bus helper>]
# The whole file runs as root in a private mount and pid namespace. Each `scenario` gets a fresh
# root: an overlay of / whose upper folder lives on a tmpfs, with /proc, /dev and /sys mounted
# inside and an empty /tmp. Nothing a scenario does reaches the host, and every process it started
# dies with it.

# Inside every root:
#   $APP                 /Applications/Quorvik Connect.app, with the built Launcher.app in it
#   $EXE                 the Launcher executable inside it (root-owned, mode 04755 as installed)
#   $USER_HOME           /Users/maria, home of the user maria (uid $USER_ID) added to /etc/passwd;
#                        she administers the machine (a member of group sudo) unless the scenario
#                        says `not_administrator`
#   SystemVersion.plist  with the scenario's ProductVersion
#   stand-ins            /sbin/kextload, /sbin/kextunload, /usr/bin/open, /usr/bin/defaults,
#                        /bin/launchctl, /usr/bin/killall, /usr/bin/zenity, /usr/bin/kdialog: each
#                        appends "<path> [arg] [arg] | uid=<uid> NAME=value..." to the journal and
#                        exits with the status set by `tool_status`

# A scenario reads: one `scenario` line, its setup, one `launch`, then checks. Checks never stop
# the file; every failed one is reported with the journal, the Launcher's output and its log
# files, and the file fails when any did or when it checked nothing at all. A harness failure
# (no root, no namespace, a setup step that fails) stops the file with a FAIL line.

#   scenario TITLE [--version X.Y.Z | --no-version]     fresh root (system version 10.6.8 by default)
#   setup:   marker PATH [CONTENT]   put PATH [MODE [OWNER]] <TEXT   folder [--owner U:G] PATH...
#            not_administrator
#            tool_status TOOL N   record_env NAME...   plug VENDOR PRODUCT
#   run:     launch [--as user|root] [--env N=V] [--unset N] [--background] [--timeout S] [-- ARG...]
#            serve [LAUNCH-ARG...]
#            wait_until_serving   wait_for_call TOOL ARG...   stop_launcher
#            unplug NAME   e2e_wait_end S
#   checks:  expect_status N   expect_line FILE LINE   expect_no_line FILE TEXT   expect_head FILE LINE...
#            expect_no_logs   expect_file PATH   expect_no_file PATH   expect_no_files GLOB
#            find_one VAR GLOB   expect_stamp STAMP BEFORE AFTER   expect_call [--where W] TOOL ARG...
#            expect_calls N [--where W] TOOL ARG...   expect_no_call TOOL   expect_only_calls TOOL...
#            expect_no_calls   expect_command_line ARG...   expect_user_ids REAL EFFECTIVE
#            expect_mode PATH "MODE UID:GID"   snapshot + expect_unchanged   e2e_check DESCRIPTION COMMAND...
#   values:  $APP $LAUNCHER_APP $EXE $USER_NAME $USER_ID $USER_HOME $PID $STATUS $PLUGGED $ROOT
#            main_log   type_log TYPE   command_line   stamp   in_root COMMAND...

set -u
shopt -s nullglob

E2E_SOURCE_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

e2e_die() {
    echo "FAIL: $*" >&2
    exit 1
}

# Runs COMMAND every 50 ms until it succeeds, for at most S seconds; fails when it never did.
# Usage: e2e_poll S COMMAND...
e2e_poll() {
    local deadline=$((SECONDS + $1))
    shift
    until "$@"; do
        [ $SECONDS -le $deadline ] || return 1
        sleep 0.05
    done
}

[ $# -ge 1 ] || e2e_die "usage: bash $0 <built Launcher executable> [<usb bus helper>]"
E2E_BUILT_EXE=$(realpath -e -- "$1" 2>/dev/null) || e2e_die "no built Launcher at '$1'"
E2E_BUILT_BUNDLE=$(realpath -e -- "$(dirname "$E2E_BUILT_EXE")/../..") || e2e_die "no bundle around $E2E_BUILT_EXE"
E2E_USB_BUS=""
[ $# -ge 2 ] && { E2E_USB_BUS=$(realpath -e -- "$2") || e2e_die "no usb bus helper at '$2'"; }

# --- Entering the namespaces ---------------------------------------------------------------------

if [ -z "${QVK_E2E_BASE:-}" ]; then
    [ "$(id -u)" = 0 ] || e2e_die "the end-to-end scenarios need root (mount namespace, overlay, chroot); run them as root"
    E2E_OUTER=$(mktemp -d /tmp/qvk-e2e.XXXXXX) || e2e_die "cannot make a mount point"
    trap 'rm -f "$E2E_OUTER/.entered"; rmdir "$E2E_OUTER" 2>/dev/null' EXIT
    trap 'exit 143' TERM INT
    QVK_E2E_BASE=$E2E_OUTER unshare --mount --pid --fork --kill-child --mount-proc --propagation private \
        bash "$0" "$@"
    status=$?
    [ -e "$E2E_OUTER/.entered" ] || e2e_die "could not make a private mount and pid namespace (unshare failed, status $status)"
    exit $status
fi

# Inside: this shell is process 1 of its own pid namespace, so `kill -1` reaches only the
# scenario's processes. Refuse to go on anywhere else.
[ "$$" = 1 ] || e2e_die "the harness must run as process 1 of a fresh pid namespace"
touch "$QVK_E2E_BASE/.entered"
mount -t tmpfs -o mode=0755 qvk-e2e "$QVK_E2E_BASE" || e2e_die "cannot mount a tmpfs on $QVK_E2E_BASE"

# --- Names every scenario may use ----------------------------------------------------------------

APP="/Applications/Quorvik Connect.app"
LAUNCHER_APP="$APP/Launcher.app"
EXE="$LAUNCHER_APP/Contents/MacOS/Launcher"
USER_NAME=maria USER_ID=501 USER_GID=50 USER_HOME=/Users/maria
STANDINS=(/sbin/kextload /sbin/kextunload /usr/bin/open /usr/bin/defaults /bin/launchctl /usr/bin/killall
    /usr/bin/zenity /usr/bin/kdialog)

# ROOT: the current scenario's root, as seen from the harness; PID: the Launcher's process id (also
# the one in its log file names) and STATUS its exit status once it ended; PLUGGED: name of the
# device `plug` put on the simulated USB bus last.
ROOT="" PID="" STATUS="" PLUGGED="" E2E_SCENARIO=""
E2E_SCENARIOS=0 E2E_CHECKS=0 E2E_FAILED=0 E2E_SCENARIO_FAILED=0
E2E_USB_IN="" E2E_USB_OUT="" E2E_USB_DIR="" E2E_USB_COUNT=0

# The system calls in which the run loop waits for its next event: poll and ppoll.
case "$(uname -m)" in
x86_64) E2E_POLL_CALLS="7 271" ;;
aarch64) E2E_POLL_CALLS="73" ;;
i?86) E2E_POLL_CALLS="168 309" ;;
*) e2e_die "no poll system call numbers known for $(uname -m)" ;;
esac

# --- Plumbing ------------------------------------------------------------------------------------

# Runs a command inside the current root, as root.
in_root() { chroot "$ROOT" "$@"; }

# Writes standard input to a file inside the root (through the root's own view of the path, so a
# link in the host's tree can never redirect the write). Usage: put PATH [MODE [OWNER]] < content
put() {
    in_root /bin/sh -c 'rm -f -- "$1" && mkdir -p -- "$(dirname -- "$1")" && cat > "$1" && chmod "$2" "$1" && chown "$3" "$1"' \
        put "$1" "${2:-0644}" "${3:-0:0}" || e2e_die "cannot write $1 in the sandbox"
}

# Creates folders inside the root. Usage: folder [--owner UID:GID] PATH...
folder() {
    local owner=0:0
    [ "$1" = --owner ] && { owner=$2; shift 2; }
    in_root /bin/sh -c 'owner=$1; shift; mkdir -p -- "$@" && chown "$owner" "$@"' folder "$owner" "$@" ||
        e2e_die "cannot make folders $*"
}

# A marker file (empty unless content is given). Usage: marker PATH [CONTENT]
# Markers in the user's home folder belong to the user.
marker() {
    local owner=0:0
    [[ $1 == "$USER_HOME"/* ]] && owner=$USER_ID:$USER_GID
    printf '%s' "${2:-}" | put "$1" 0644 "$owner"
}

# Takes the user out of every administrators' group.
not_administrator() { for g in admin sudo wheel; do in_root gpasswd -d "$USER_NAME" "$g" >/dev/null 2>&1; done; }

# The exit status a stand-in answers with. Usage: tool_status TOOL-NAME STATUS
tool_status() { echo "$2" | put "/.e2e/status/$1"; }
# Environment variables the stand-ins record beside their arguments. Usage: record_env NAME...
record_env() { echo "$*" | put /.e2e/record-env; }

# A property list of string values. Usage: e2e_plist_string_dict KEY VALUE...
e2e_plist_string_dict() {
    printf '<?xml version="1.0" encoding="UTF-8"?>\n<plist version="1.0">\n<dict>\n'
    printf '\t<key>%s</key>\n\t<string>%s</string>\n' "$@"
    printf '</dict>\n</plist>\n'
}

# --- Scenario life -------------------------------------------------------------------------------

e2e_teardown() {
    [ -n "$ROOT" ] || return 0
    { kill -KILL -1 && wait; } 2>/dev/null
    E2E_USB_IN="" E2E_USB_OUT="" E2E_USB_DIR="" E2E_USB_COUNT=0
    # A sanitizer build reports on the Launcher's standard error.
    grep -q -E '^==[0-9]+==ERROR: |runtime error: ' "$ROOT/.e2e/launcher.out" 2>/dev/null &&
        e2e_fail "the Launcher's output holds a sanitizer report"
    [ "$E2E_SCENARIO_FAILED" = 0 ] || e2e_show_evidence
    umount -R "$ROOT" 2>/dev/null || umount -R -l "$ROOT"
    rm -rf "${ROOT%/root}"
    ROOT=""
}

# The journal, the Launcher's output and its log files.
e2e_show_evidence() {
    local f
    for f in "$ROOT/.e2e/journal" "$ROOT/.e2e/launcher.out" "$ROOT"/tmp/Quorvik* "$ROOT$USER_HOME"/Quorvik*; do
        echo "  --- ${f#"$ROOT"}:"
        awk '{ print "    " $0 }' "$f" 2>/dev/null
    done
}

e2e_finish() {
    local code=$?
    e2e_teardown
    [ "$code" = 0 ] || e2e_die "the harness stopped early (status $code) after $E2E_SCENARIOS scenarios"
    echo "== $E2E_SCENARIOS scenarios, $E2E_CHECKS checks, $E2E_FAILED failed"
    [ "$E2E_CHECKS" != 0 ] || e2e_die "nothing was checked"
    [ "$E2E_FAILED" = 0 ] || exit 1
    exit 0
}
trap e2e_finish EXIT

# Starts a scenario in a fresh root. Usage: scenario TITLE [--version X.Y.Z | --no-version]
# The system version defaults to 10.6.8.
scenario() {
    e2e_teardown
    E2E_SCENARIO=$1
    shift
    local version=10.6.8
    case "${1:-}" in
    --version) version=$2 ;;
    --no-version) version="" ;;
    "") ;;
    *) e2e_die "scenario: unknown option $1" ;;
    esac
    E2E_SCENARIOS=$((E2E_SCENARIOS + 1)) E2E_SCENARIO_FAILED=0 PID="" STATUS=""
    echo "== $E2E_SCENARIO"

    local dir="$QVK_E2E_BASE/s$E2E_SCENARIOS"
    mkdir -p "$dir/upper" "$dir/work" "$dir/root" || e2e_die "cannot make $dir"
    ROOT="$dir/root"
    mount -t overlay overlay -o "lowerdir=/,upperdir=$dir/upper,workdir=$dir/work" "$ROOT" ||
        e2e_die "cannot mount an overlay of / on $ROOT"
    mount -t proc proc "$ROOT/proc" || e2e_die "cannot mount /proc in the sandbox"
    mount --rbind /dev "$ROOT/dev" || e2e_die "cannot mount /dev in the sandbox"
    mount --rbind /sys "$ROOT/sys" || e2e_die "cannot mount /sys in the sandbox"
    mount -t tmpfs -o mode=1777 qvk-e2e-tmp "$ROOT/tmp" || e2e_die "cannot mount an empty /tmp in the sandbox"

    e2e_make_world "$version"
}

e2e_make_world() {
    # The harness's own corner: journal, stand-in statuses, Launcher output.
    mkdir -m 0755 "$ROOT/.e2e" "$ROOT/.e2e/status"
    install -m 0666 /dev/null "$ROOT/.e2e/journal"

    # The user, with a home folder shaped like a Mac one, replacing any entry of that name or id.
    in_root /bin/sh -c 'sed -i -e "/^$1:/d" -e "/^[^:]*:[^:]*:$2:/d" /etc/passwd && echo "$1:x:$2:$3:Maria:$4:/bin/sh" >>/etc/passwd' \
        sh "$USER_NAME" "$USER_ID" "$USER_GID" "$USER_HOME" || e2e_die "cannot add the user $USER_NAME"
    # She installed the package, so she administers the machine.
    not_administrator
    in_root gpasswd -a "$USER_NAME" sudo >/dev/null || e2e_die "cannot make $USER_NAME an administrator"
    folder --owner "$USER_ID:$USER_GID" "$USER_HOME" "$USER_HOME/Library" "$USER_HOME/Library/Preferences" \
        "$USER_HOME/Library/LaunchAgents" "$USER_HOME/.Trash"

    folder /Applications /System/Library/Extensions /System/Library/CoreServices /Library/Preferences/SystemConfiguration \
        /Library/Receipts /Library/LaunchAgents /Library/LaunchDaemons /Library/Extensions "/Library/Modem Scripts"
    [ -n "$1" ] && e2e_plist_string_dict ProductVersion "$1" | put /System/Library/CoreServices/SystemVersion.plist

    # The installed package with the built Launcher inside.
    folder "$APP/Contents/Resources"
    e2e_plist_string_dict CFBundleDisplayName "Quorvik Connect" CFBundleName Quorvik \
        CFBundleIdentifier com.quorvik.Connect CFBundleVersion "3.2 201104.120000" | put "$APP/Contents/Info.plist"
    cp -R "$E2E_BUILT_BUNDLE" "$ROOT$LAUNCHER_APP" || e2e_die "cannot copy the built Launcher.app"
    in_root /bin/sh -c 'chown -R 0:0 "$1" && chmod 04755 "$2"' sh "$LAUNCHER_APP" "$EXE" ||
        e2e_die "cannot install the Launcher set-user-id root"

    local tool
    for tool in "${STANDINS[@]}"; do put "$tool" 0755 <"$E2E_SOURCE_DIR/standin.sh"; done
}

# --- Running the Launcher ------------------------------------------------------------------------

# Runs the Launcher from the installed package. Usage:
#   launch [--as user|root] [--env NAME=VALUE]... [--unset NAME]... [--background] [--timeout S] [-- ARG...]
# By default the user starts it (through the set-user-id executable, as at login) with a clean
# environment: PATH, HOME, USER, LOGNAME. Standard input is empty and standard output and error go
# to a file, so it has no terminal. In the foreground it must end within the timeout (10 s);
# STATUS is its exit status. In the background it keeps running; PID is its process id.
launch() {
    local as=user background=0 timeout=10
    local env=(PATH=/usr/local/bin:/usr/bin:/bin "HOME=$USER_HOME" "USER=$USER_NAME" "LOGNAME=$USER_NAME")
    local name
    while [ $# -gt 0 ]; do
        case "$1" in
        --as) as=$2; shift 2 ;;
        --env) env+=("$2"); shift 2 ;;
        --unset)
            for name in "${!env[@]}"; do [[ ${env[$name]} == "$2="* ]] && unset "env[$name]"; done
            shift 2
            ;;
        --background) background=1; shift ;;
        --timeout) timeout=$2; shift 2 ;;
        --) shift; break ;;
        *) e2e_die "launch: unknown option $1" ;;
        esac
    done
    # A root start always gets the simulated USB bus, never the machine's own. (The loader drops
    # LD_PRELOAD for a set-user-id start, so a user start cannot have it.)
    local user=()
    case "$as" in
    user)
        [ -z "$E2E_USB_DIR" ] || e2e_die "launch: with the simulated USB bus the Launcher must be started --as root"
        user=(--userspec="$USER_ID:$USER_GID" --groups="$USER_GID")
        ;;
    root)
        [ -n "$E2E_USB_DIR" ] || e2e_usb_start
        env+=(LD_PRELOAD=libumockdev-preload.so.0 "UMOCKDEV_DIR=$E2E_USB_DIR")
        ;;
    *) e2e_die "launch: --as user or root" ;;
    esac

    STATUS=""
    # setsid: no controlling terminal, even when a developer runs the file from one.
    setsid chroot "${user[@]}" "$ROOT" /usr/bin/env -i "${env[@]}" "$EXE" "$@" \
        </dev/null >>"$ROOT/.e2e/launcher.out" 2>&1 &
    PID=$!
    [ "$background" = 1 ] && return 0
    e2e_wait_end "$timeout" || e2e_fail "the Launcher did not end within $timeout s (killed)"
}

# The Launcher's command line while it runs, its arguments shown as "[arg]".
command_line() { tr '\0' '\n' <"/proc/$PID/cmdline" | sed 's/.*/[&]/' | tr -d '\n'; }

# True while the Launcher runs (a finished one that was not collected yet does not count).
e2e_alive() {
    local stat
    stat=$(cat "/proc/$PID/stat" 2>/dev/null) && stat=${stat##*) } && [ "${stat:0:1}" != Z ]
}

e2e_ended() { ! e2e_alive; }

# Waits up to $1 seconds for the Launcher to end and collects STATUS; kills it when it does not.
e2e_wait_end() {
    local ended=1
    e2e_poll "$1" e2e_ended || { ended=0 && kill -KILL "$PID" 2>/dev/null; }
    wait "$PID" 2>/dev/null
    STATUS=$?
    [ "$ended" = 1 ]
}

# Ends a Launcher that runs in the background. It must still be running: its normal life never ends
# by itself.
stop_launcher() {
    local running=false
    e2e_alive && running=true && kill -TERM "$PID"
    e2e_wait_end 5
    e2e_check "still running until stopped, not ended by itself (status $STATUS)" $running
}

# Waits until the Launcher idles in its run loop (its main thread blocked in poll), and counts that
# as a check: a Launcher that ends or never gets there fails it. Usage: wait_until_serving [S]
wait_until_serving() {
    E2E_SEEN=0
    e2e_poll "${1:-10}" e2e_serving_or_ended
    e2e_check "serving its run loop" [ $E2E_SEEN = 2 ]
    [ $E2E_SEEN = 2 ]
}
# Seen in poll twice in a row (so that a pass of the loop with work still pending does not count),
# or ended.
e2e_serving_or_ended() {
    local call
    e2e_alive || return 0
    read -r call _ <"/proc/$PID/syscall" 2>/dev/null
    if [[ " $E2E_POLL_CALLS " == *" ${call:-none} "* ]]; then E2E_SEEN=$((E2E_SEEN + 1)); else E2E_SEEN=0; fi
    [ $E2E_SEEN = 2 ]
}

# Runs the Launcher in the background until it serves its run loop, then stops it. Usage: serve [LAUNCH-ARG...]
serve() {
    launch --background "$@"
    wait_until_serving
    stop_launcher
}

# The log files of the Launcher's process (sandbox paths).
main_log() { echo "/tmp/Quorvik.Log.$PID"; }
type_log() { echo "/tmp/Quorvik.Log.$PID.$1"; }

# Waits until the journal holds the call. Usage: wait_for_call TOOL ARG...
wait_for_call() {
    e2e_poll 10 e2e_called "$@"
    expect_call "$@" && e2e_called "$@"
}

# --- The simulated USB bus -----------------------------------------------------------------------

e2e_usb_start() {
    [ -n "$E2E_USB_BUS" ] || e2e_die "USB scenarios need the bus helper: bash $0 <Launcher> <e2e_usb_bus>"
    install -m 0755 "$E2E_USB_BUS" "$ROOT/.e2e/usb_bus" || e2e_die "cannot copy the USB bus helper"
    coproc E2E_USB {
        exec chroot "$ROOT" /usr/bin/env LD_PRELOAD=libumockdev-preload.so.0 /.e2e/usb_bus 2>>"$ROOT/.e2e/usb_bus.out"
    }
    E2E_USB_OUT=${E2E_USB[0]} E2E_USB_IN=${E2E_USB[1]}
    local word
    read -r -t 10 -u "$E2E_USB_OUT" word E2E_USB_DIR && [ "$word" = ready ] && [ -n "$E2E_USB_DIR" ] ||
        e2e_die "the simulated USB bus did not start: $(cat "$ROOT/.e2e/usb_bus.out")"
}

e2e_usb_command() {
    local answer rest
    echo "$1" >&"$E2E_USB_IN"
    read -r -t 10 -u "$E2E_USB_OUT" answer rest && [ "$answer" = ok ] ||
        e2e_die "the simulated USB bus refused '$1': ${answer:-no answer} ${rest:-}"
}

# Plugs a USB device with these ids (four hexadecimal digits each) into the simulated bus. Before
# `launch` the device is present at start; afterwards it arrives (the Launcher must have been
# started --as root). Its name goes into PLUGGED. Usage: plug VENDOR PRODUCT
plug() {
    if [ -z "$E2E_USB_DIR" ]; then
        [ -z "$PID" ] || e2e_die "plug: the Launcher was started without the simulated USB bus (use launch --as root)"
        e2e_usb_start
    fi
    E2E_USB_COUNT=$((E2E_USB_COUNT + 1))
    PLUGGED=usb$E2E_USB_COUNT
    e2e_usb_command "add $PLUGGED $1 $2"
}
# Usage: unplug NAME
unplug() { e2e_usb_command "remove $1"; }

# --- Checks --------------------------------------------------------------------------------------

e2e_fail() {
    E2E_CHECKS=$((E2E_CHECKS + 1)) E2E_FAILED=$((E2E_FAILED + 1)) E2E_SCENARIO_FAILED=1
    echo "  FAIL  $*"
}
e2e_check() {
    local what=$1
    shift
    if "$@"; then E2E_CHECKS=$((E2E_CHECKS + 1)) && echo "  ok    $what"; else e2e_fail "$what"; fi
}

expect_status() {
    local got=${STATUS:-none}
    [[ $got =~ ^[0-9]+$ ]] && [ "$got" -gt 128 ] && got+=", ended by signal $((got - 128))"
    e2e_check "exit status $1 (got $got)" [ "${STATUS:-}" = "$1" ]
}

expect_file() { e2e_check "$1 exists" test -e "$ROOT$1"; }
expect_no_file() { e2e_check "no $1" test ! -e "$ROOT$1"; }

# FILE's lines, with the loggers' dates replaced by <date>: "16.11. 01:10:24.123" (main logger)
# and "11/16 01:10:24.123" (depth logger).
e2e_lines() {
    sed -E -e 's#[0-9]{2}\.[0-9]{2}\. [0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3}#<date>#' \
        -e 's#^[0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3}#<date>#' "$ROOT$1"
}

# FILE has a line equal to LINE (dates written as <date>). Usage: expect_line FILE LINE
expect_line() { e2e_check "$1: $2" e2e_has_line "$1" "$2"; }
expect_no_line() { e2e_check "$1 lacks lines with: $2" e2e_lacks_text "$1" "$2"; }
e2e_has_line() { e2e_lines "$1" 2>/dev/null | grep -qxF -- "$2"; }
e2e_lacks_text() { ! grep -qF -- "$2" "$ROOT$1" 2>/dev/null; }

# FILE begins with exactly these lines. Usage: expect_head FILE LINE...
expect_head() {
    local actual
    actual=$(e2e_lines "$1" 2>/dev/null | head -n $(($# - 1)))
    e2e_check "$1 begins with: $(printf '%s|' "${@:2}")" [ "$actual" = "$(printf '%s\n' "${@:2}")" ]
}

# No log file of either logger anywhere (/tmp and the home folder).
expect_no_logs() { expect_no_files "{/tmp,$USER_HOME}/Quorvik.*"; }

# No file matches the sandbox glob (braces expanded). Usage: expect_no_files GLOB
expect_no_files() {
    local found
    eval "found=(\"\$ROOT\"$1)"
    e2e_check "no file like $1 (found: ${found[*]#"$ROOT"})" [ ${#found[@]} = 0 ]
}

# Exactly one file matches the sandbox glob (for the depth logger's timestamped names); its sandbox
# path goes into the variable VAR. Usage: find_one VAR GLOB
find_one() {
    local found=("$ROOT"$2)
    printf -v "$1" '%s' "${found[0]#"$ROOT"}"
    e2e_check "one file like $2 (found: ${found[*]#"$ROOT"})" [ ${#found[@]} = 1 ]
}

# The current local time in the depth logger's file-name form, as the sandbox sees it.
stamp() { in_root /usr/bin/env -i date +%y%m%d.%H%M%S; }
# STAMP has that form and lies between BEFORE and AFTER. Usage: expect_stamp STAMP BEFORE AFTER
expect_stamp() {
    local ok=false
    [[ $1 =~ ^[0-9]{6}\.[0-9]{6}$ && ! $1 < $2 && ! $1 > $3 ]] && ok=true
    e2e_check "time stamp $1 of the form yymmdd.HHMMSS between $2 and $3" $ok
}

# The journal line of a call: "<tool> [arg] [arg]".
e2e_call_text() { printf '%s' "$1" && [ $# = 1 ] || printf ' [%s]' "${@:2}"; }
# How many journal calls are exactly TOOL ARG..., optionally with details (" | uid=501 ...")
# that contain every word of --where.
e2e_count_calls() {
    local where=""
    [ "$1" = --where ] && { where=$2; shift 2; }
    # Through the environment, where awk leaves backslashes alone.
    E2E_CALL=$(e2e_call_text "$@") E2E_WHERE=$where awk 'BEGIN { words = split(ENVIRON["E2E_WHERE"], word, " ") }
        { at = index($0, " | "); if (substr($0, 1, at - 1) != ENVIRON["E2E_CALL"]) next
          for (w = 1; w <= words; w++) if (!index(" " substr($0, at + 3) " ", " " word[w] " ")) next
          n++ }
        END { print n + 0 }' "$ROOT/.e2e/journal"
}

# How a call is shown in check lines.
e2e_call_desc() { if [ "$1" = --where ]; then echo "$(e2e_call_text "${@:3}") | $2"; else e2e_call_text "$@"; fi; }
# The journal holds the call (at least once). Usage: expect_call [--where 'uid=501 DISPLAY=:5'] TOOL ARG...
expect_call() { e2e_check "called: $(e2e_call_desc "$@")" e2e_called "$@"; }
e2e_called() { [ "$(e2e_count_calls "$@")" -ge 1 ]; }
# The journal holds the call exactly N times. Usage: expect_calls N [--where WORDS] TOOL ARG...
expect_calls() {
    local got
    got=$(e2e_count_calls "${@:2}")
    e2e_check "called $1 times (got $got): $(e2e_call_desc "${@:2}")" [ "$got" = "$1" ]
}
# No call of TOOL at all, whatever its arguments. Usage: expect_no_call TOOL
expect_no_call() { e2e_check "never called: $1" e2e_never_called "$1"; }
e2e_never_called() { awk -v tool="$1" '$1 == tool { exit 1 }' "$ROOT/.e2e/journal"; }
# Every call in the journal is of one of these tools. Usage: expect_only_calls TOOL...
expect_only_calls() { e2e_check "no tool but $* was run" e2e_only_called "$@"; }
e2e_only_called() { awk -v tools=" $* " 'index(tools, " " $1 " ") == 0 { exit 1 }' "$ROOT/.e2e/journal"; }
# The journal is empty: no tool was run.
expect_no_calls() { e2e_check "no tool was run" [ ! -s "$ROOT/.e2e/journal" ]; }

# The running Launcher's arguments, program path first. Usage: expect_command_line ARG...
expect_command_line() {
    local got
    got=$(command_line)
    e2e_check "runs as $(printf '[%s]' "$@") (got $got)" [ "$got" = "$(printf '[%s]' "$@")" ]
}
# The running Launcher's real and effective user ids. Usage: expect_user_ids REAL EFFECTIVE
expect_user_ids() {
    local label real effective
    read -r label real effective _ < <(grep '^Uid:' "/proc/$PID/status")
    e2e_check "real and effective user $1 $2 (got $real $effective)" [ "$real $effective" = "$1 $2" ]
}
# Mode (octal) and owner of PATH itself. Usage: expect_mode PATH "MODE UID:GID"
expect_mode() {
    local got
    got=$(in_root stat -c '%a %u:%g' -- "$1")
    e2e_check "$1 is $2 (got $got)" [ "$got" = "$2" ]
}

# Records the Mac-shaped part of the file system (everything but /tmp); expect_unchanged compares.
e2e_tree() {
    in_root /usr/bin/find /Applications /Library /System /Users -printf '%p %m %u:%g %s\n' 2>/dev/null | sort
}
snapshot() { E2E_SNAPSHOT=$(e2e_tree); }
expect_unchanged() {
    local now
    now=$(e2e_tree)
    e2e_check "the file system is unchanged" [ "$now" = "$E2E_SNAPSHOT" ]
    [ "$now" = "$E2E_SNAPSHOT" ] || diff <(echo "$E2E_SNAPSHOT") <(echo "$now") | sed 's/^/    /'
}
