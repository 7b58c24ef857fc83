source "$(dirname "$0")/lib.sh"

scenario "a pipe for the depth marker and a home folder the user flips give the super-user's file no other place"
folder --owner "$USER_ID:$USER_GID" "$USER_HOME/real"
in_root /bin/sh -c 'mkfifo -m 0644 "$1/real/Quorvik-DoLog" && ln -s "$1/real" "$1/flip" &&
    chown -h "$2" "$1/real/Quorvik-DoLog" "$1/flip"' sh "$USER_HOME" "$USER_ID:$USER_GID" || e2e_die "cannot plant"
launch --background --unset HOME --env "HOME=$USER_HOME/flip"
# Until it waits for the other end of the pipe (or serves its run loop).
E2E_SEEN=0
e2e_poll 10 eval '[ "$(cat "/proc/$PID/wchan" 2>/dev/null)" = wait_for_partner ] || e2e_serving_or_ended'
# The link now leads into a system folder; then the pipe gets its mask, from a writer that never waits for a reader.
in_root ln -sfn /Library/LaunchDaemons "$USER_HOME/flip"
in_root /bin/sh -c 'echo 1 1<>"$1"' sh "$USER_HOME/real/Quorvik-DoLog"
wait_until_serving
stop_launcher
e2e_check "no log file of the super-user's outside /tmp" \
    [ -z "$(in_root find /Applications /Library /System /Users /etc -name 'Quorvik.*' -user 0)" ]

scenario "pipes another user planted at the log names stall nothing; the home folder's log file is the user's"
printf '' | put /tmp/Quorvik-PleaseDoLog 0644 602:602
marker "$USER_HOME/Quorvik-DoLog" 1
# The Launcher's process id is among the next few hundred of this pid namespace.
next=$(($(cat /proc/sys/kernel/ns_last_pid) + 1))
in_root /bin/sh -c 'cd /tmp && mkfifo -m 0666 $(seq -f "Quorvik.Log.%g" "$1" "$2") && chown "$3" Quorvik.Log.*' \
    sh "$next" "$((next + 400))" 602:602 || e2e_die "cannot plant the pipes"
serve
e2e_check "the pipe at $(main_log) is left as it was" test -p "$ROOT$(main_log)"
owners=$(stat -c %u:%g -- "$ROOT$USER_HOME"/Quorvik.* 2>/dev/null | sort -u)
e2e_check "the home folder's log files belong to the user (got: ${owners//$'\n'/ })" [ "$owners" = "$USER_ID:$USER_GID" ]
