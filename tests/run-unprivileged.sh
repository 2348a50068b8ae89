#!/usr/bin/env bash
# Runs a test program as an unprivileged user. Root reads every folder whatever its
# permissions, so the cases about unreadable folders and files only mean something without
# root. Exits 77 (counted as skipped) when that cannot be arranged on this machine.
set -u
program="$1"
shift
if [ "$(id -u)" -ne 0 ]; then
    echo "not root: the regular run already covers these cases"
    exit 77
fi
if ! command -v setpriv >/dev/null 2>&1; then
    echo "setpriv is not installed"
    exit 77
fi
as_nobody=(setpriv --reuid=nobody --regid=nogroup --clear-groups)
if ! "${as_nobody[@]}" test -x "$program"; then
    echo "the unprivileged user cannot reach $program"
    exit 77
fi
exec "${as_nobody[@]}" env HOME=/tmp XDG_DATA_HOME= TMPDIR=/tmp "$program" "$@"
