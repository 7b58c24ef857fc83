# A program the Launcher starts for the user runs as the user it acts for, with the session's
# variables only: nothing of the caller's environment that steers a program reaches it.
source "$(dirname "$0")/lib.sh"

scenario "a modem starts the application as the user the Launcher acts for, with the session's variables only"
record_env HOME USER LANG DISPLAY SHELLOPTS GTK_MODULES TZ LANGUAGE
launch --as root --background --unset HOME --env HOME=/root --env LANG=de_DE.UTF-8 --env DISPLAY=:5 \
    --env SHELLOPTS=xtrace --env GTK_MODULES=/tmp/evil.so --env TZ=../../tmp/zone --env LANGUAGE=../../../tmp/catalog \
    -- --uid "$USER_ID"
wait_until_serving
plug 12d1 1001
wait_for_call /usr/bin/open -a "$APP"
stop_launcher
expect_calls 1 --where "uid=$USER_ID HOME=$USER_HOME USER=$USER_NAME LANG=de_DE.UTF-8 DISPLAY=:5" /usr/bin/open -a "$APP"
for name in SHELLOPTS GTK_MODULES TZ LANGUAGE; do expect_no_line /.e2e/journal " $name="; done
