#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT
#
# What the program thread-utilities does with what it cannot use: one clear line, exit status 2.
#
#   program_test.sh PROGRAM
set -u
program=$1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
failures=0

expect() {
    local what=$1 status=$2 pattern=$3
    shift 3
    "$@" >"$scratch/out" 2>"$scratch/err" </dev/null
    local got=$?
    # Bad input gets one line; what is said of a report's modules may take more.
    if [[ $got -ne $status ]] || ! grep -q -- "$pattern" "$scratch/err" ||
        [[ $status -eq 2 && $(grep -c '^thread-utilities' "$scratch/err") -gt 2 ]]; then
        echo "$what: status $got, not $status, or no \"$pattern\" in:" >&2
        cat "$scratch/err" >&2
        failures=1
    fi
}

frame='a+0x1{00000000-0000-0000-0000-000000000000};'
head=$'Total sample count: 1\nParallelism: 1\n\nThread 7 [1]: x\n'
printf '%s  [1]: %s\n\n' "$head" "$frame" >"$scratch/whole"
printf '%s  [1]: %s\n' "$head" "$frame" >"$scratch/half"
printf '[7][x]%s\n' "${frame/a+/A.DLL+}" >"$scratch/windows"
echo 'a log' >"$scratch/log"

expect "no file" 2 'No such file' "$program" read "$scratch/none"
expect "a folder" 2 'folder' "$program" read "$scratch"
expect "no report" 2 'no report' "$program" read "$scratch/log"
expect "half a file" 2 'line 6' "$program" read "$scratch/half"
expect "another system" 2 'a report of Windows' "$program" read "$scratch/windows"
expect "no id" 1 'no build-id' "$program" read "$scratch/whole"
expect "no such option" 2 'nonsense' "$program" read --nonsense
expect "no such folder" 2 'does not exist' "$program" read --symbols "$scratch/none" "$scratch/whole"
expect "no such process" 2 'no such process' "$program" read --pid 0 "$scratch/whole"
sed 's/\[1\]: x/[9223372036854775808]: x/' "$scratch/whole" >"$scratch/many"
cat "$scratch/many" "$scratch/many" >"$scratch/more"
expect "sums beyond 64 bits" 2 'line 4: more than' "$program" read "$scratch/more"
expect "full disk" 2 'No space left' bash -c '"$0" read "$1" >/dev/full' "$program" "$scratch/whole"
# A filter: what is no report comes out as it went in.
"$program" read "$scratch/log" 2>/dev/null | cmp - "$scratch/log" || failures=1

# The same of the other commands, and of either file of two.
out=$scratch/out.html
for bad in none . log half; do
    case $bad in
        none) pattern='No such file' ;;
        .) pattern='folder' ;;
        half) pattern='line 6' ;;
        *) pattern='no report' ;;
    esac
    expect "convert $bad" 2 "$pattern" "$program" convert "$scratch/$bad" -o "$out"
    expect "compare $bad" 2 "$pattern" "$program" compare "$scratch/$bad" "$scratch/whole"
    expect "compare with $bad" 2 "$pattern" "$program" compare "$scratch/whole" "$scratch/$bad" \
        --html "$out"
done
[[ ! -e $out ]] || { echo "a page of nothing" >&2; failures=1; }
expect "compare, full disk" 2 'No space left' bash -c '"$0" compare "$1" "$1" >/dev/full' \
    "$program" "$scratch/whole"
expect "compare, a folder as page" 2 'directory' \
    "$program" compare "$scratch/whole" "$scratch/whole" --html "$scratch"

expect "no format" 2 'which format' "$program" convert "$scratch/whole" -o "$scratch/page"
expect "no place" 2 'No such file' "$program" convert "$scratch/whole" -o "$scratch/none/a.html"
# What cannot be written whole leaves the old file, and nothing else.
mkdir "$scratch/place"
page=$scratch/place/page.html
echo old >"$page"
expect "no room" 2 'cannot be written' \
    bash -c 'trap "" XFSZ; ulimit -f 1; "$0" convert "$1" -o "$2"' \
    "$program" "$scratch/whole" "$page"
expect "half a file" 2 'line 6' "$program" convert "$scratch/half" -o "$page"
[[ $(cat "$scratch"/place/*) == old ]] || { echo "the old page is gone" >&2; failures=1; }
expect "a page" 1 'no build-id' "$program" convert "$scratch/whole" -o "$page"
[[ $(ls "$scratch/place") == page.html && $(wc -l <"$page") -gt 100 ]] || failures=1
# A link stays one where nothing is behind it yet; the input is never written over.
ln -s new.html "$scratch/place/link.html"
expect "behind a link" 1 'no build-id' "$program" convert "$scratch/whole" -o "$scratch/place/link.html"
[[ -L $scratch/place/link.html && -s $scratch/place/new.html ]] || failures=1
cp "$scratch/whole" "$scratch/input.html"
expect "its own input" 2 'is the input' "$program" convert "$scratch/input.html" --to html
expect "its own input" 2 'is the input' \
    "$program" compare "$scratch/whole" "$scratch/input.html" --html "$scratch/input.html"
cmp "$scratch/whole" "$scratch/input.html" || failures=1
exit "$failures"
