#!/usr/bin/env bash
# Fails when the options a program's --help names and the options its manual
# page describes differ, either way.
#   check_man_page.sh PROGRAM PAGE
# PAGE is the built roff page: an option is described where a line of the
# page begins with it in bold (a definition's term), not where prose names it.
set -euo pipefail
program=$1 page=$2

options() { grep -o -- '--[a-z][a-z-]*' | sort -u; }

help=$("$program" --help 2>&1 || true)
described=$(grep '^\\fB-' "$page" | sed 's/\\f[BIR]//g' | options)
listed=$(options <<<"$help")
[ -n "$listed" ] || { echo "FAIL: $program --help names no option" >&2; exit 1; }
difference=$(diff <(echo "$listed") <(echo "$described") || true)
if [ -n "$difference" ]; then
    echo "FAIL: --help of $program (<) and $page (>) differ:" >&2
    echo "$difference" >&2
    exit 1
fi
echo "ok: $(wc -l <<<"$listed") options in both --help and ${page##*/}"
