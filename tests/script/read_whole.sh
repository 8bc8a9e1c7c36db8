#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT
#
# Whether the program thread-utilities reads these reports without a complaint, and takes none of
# their lines for something else.
#
#   read_whole.sh PROGRAM REPORT...
set -u
program=$1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
failures=0
for report in "${@:2}"; do
    "$program" read --json "$report" >"$scratch/out" 2>"$scratch/err" </dev/null
    if grep '^{"type":"text"' "$scratch/out" ||
        grep -v '^thread-utilities: named \|^  ' "$scratch/err" ||
        ! grep -q '^thread-utilities: named ' "$scratch/err"; then
        echo "not read whole: $report" >&2
        failures=1
    fi
done
exit "$failures"
