#!/bin/sh
# Stand-in for a system tool in the end-to-end sandbox: appends the call to the journal as
# "<path> [arg] [arg] | uid=<uid> NAME=value..." (the variables named in /.e2e/record-env), prints
# /.e2e/output/<tool> if the scenario set one, and exits with /.e2e/status/<tool> (default 0).
line=$0
for arg; do line="$line [$arg]"; done
line="$line | uid=$(/usr/bin/id -u)"
if [ -r /.e2e/record-env ]; then
    for name in $(cat /.e2e/record-env); do
        eval "isset=\${$name+1} value=\${$name-}"
        [ -n "$isset" ] && line="$line $name=$value"
    done
fi
printf '%s\n' "$line" >>/.e2e/journal
tool=${0##*/}
[ -r "/.e2e/output/$tool" ] && cat "/.e2e/output/$tool"
exit "$(cat "/.e2e/status/$tool" 2>/dev/null || echo 0)"
