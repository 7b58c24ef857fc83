# Nothing of a user's environment steers a program the Launcher starts as the super-user, and the
# programs it starts for the user run as that user.
source "$(dirname "$0")/lib.sh"

STEERING=(SHELLOPTS GTK_MODULES PYTHONPATH PERL5OPT TZ LANGUAGE)
HOSTILE_ENV=(--env SHELLOPTS=xtrace --env GTK_MODULES=/tmp/evil.so --env PYTHONPATH=/tmp --env PERL5OPT=-Mevil
    --env TZ=../../tmp/zone --env LANGUAGE=../../../tmp/catalog)

# No journal line names a variable of STEERING, and no tool's shell (bash, as /bin/sh) traces.
expect_no_steering() {
    local name
    for name in "${STEERING[@]}"; do [ "$name" = SHELLOPTS ] || expect_no_line /.e2e/journal " $name="; done
    expect_no_line /.e2e/journal "xtrace"
}

scenario "with bash as /bin/sh, functions in the caller's environment run nothing as the super-user"
in_root ln -sf bash /bin/sh
record_env "${STEERING[@]}"
tool_status zenity 0
launch --env "BASH_FUNC_ps%%=() { /usr/bin/touch /owned-by-ps; }" \
    --env "BASH_FUNC_grep%%=() { /usr/bin/touch /owned-by-grep; }" \
    --env "BASH_FUNC_rm%%=() { /usr/bin/touch /owned-by-rm; }" \
    --env "BASH_FUNC_killall%%=() { /usr/bin/touch /owned-by-killall; }" \
    --env DISPLAY=:5 "${HOSTILE_ENV[@]}" -- --qvk-uninstall
expect_status 0
expect_call /usr/bin/defaults delete com.quorvik.Connect
expect_no_files "/owned-by-*"
expect_no_steering

scenario "a modem starts the application as the user the Launcher acts for, with the session's variables only"
record_env HOME USER LANG DISPLAY "${STEERING[@]}"
launch --as root --background --unset HOME --env HOME=/root --env LANG=de_DE.UTF-8 --env DISPLAY=:5 \
    "${HOSTILE_ENV[@]}" -- --uid "$USER_ID"
wait_until_serving
plug 12d1 1001
wait_for_call /usr/bin/open -a "$APP"
stop_launcher
expect_calls 1 --where "uid=$USER_ID HOME=$USER_HOME USER=$USER_NAME LANG=de_DE.UTF-8 DISPLAY=:5" /usr/bin/open -a "$APP"
expect_no_steering
