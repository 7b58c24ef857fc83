# "--qvk-uninstall" asks the user first; a "no" ends the Launcher with status 0 and changes nothing.
source "$(dirname "$0")/lib.sh"

QUESTION=(/usr/bin/zenity --question --no-markup --default-cancel "--title=Quorvik Connect"
    "--text=Do you really want to deinstall Quorvik Connect?" --ok-label=Yes --cancel-label=No)

scenario "the question declined in the dialog ends with status 0 and changes nothing"
record_env DISPLAY
tool_status zenity 1
snapshot
launch --env DISPLAY=:5 -- --qvk-uninstall
expect_status 0
expect_calls 1 --where "uid=$USER_ID DISPLAY=:5" "${QUESTION[@]}"
expect_only_calls /usr/bin/zenity
expect_unchanged

scenario "without a display or a terminal the question takes its default answer, no"
snapshot
launch -- --qvk-uninstall
expect_status 0
expect_no_calls
expect_unchanged

scenario "the question is asked even with the no-launch marker"
marker "$USER_HOME/.Quorvik-NoLaunch-Brisel"
tool_status zenity 1
snapshot
launch --env DISPLAY=:5 -- --qvk-uninstall
expect_status 0
expect_calls 1 "${QUESTION[@]}"
expect_unchanged
