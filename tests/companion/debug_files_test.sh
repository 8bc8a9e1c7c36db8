#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT
#
# Debug information as distributions keep it: compressed, in files of its own, shared between files,
# on a server.
#
#   debug_files_test.sh PROGRAM C_COMPILER
set -euo pipefail
reader=$1 compiler=$2
for tool in objcopy readelf nm dwz python3; do
    command -v "$tool" >/dev/null || { echo "skipped: no $tool"; exit 77; }
done
scratch=$(mktemp -d)
server=
trap '[[ -z $server ]] || kill "$server"; rm -rf "$scratch"' EXIT
cd "$scratch"
unset DEBUGINFOD_URLS
export DEBUGINFOD_CACHE_PATH=$scratch/cache

# Two programs, because sharing takes two.
printf '#include <stdio.h>\nint wanted(int a) {\n    return puts("x") + a;\n}\n%s\n' \
    'int main(int c, char** v) { (void)v; return wanted(c); }' >wanted.c
mkdir whole
"$compiler" -gdwarf-4 -O0 -Wl,--build-id=sha1 wanted.c -o whole/one
"$compiler" -gdwarf-4 -O0 -Wl,--build-id=sha1 -DTWO=2 wanted.c -o whole/two
id=$(readelf -n whole/one | sed -n 's/.*Build ID: //p')
u=${id^^}
guid=${u:6:2}${u:4:2}${u:2:2}${u:0:2}-${u:10:2}${u:8:2}-${u:14:2}${u:12:2}-${u:16:4}-${u:20:12}
lowest=$(readelf -lW whole/one | awk '$1 == "LOAD" { print $3; exit }')
address=$(nm whole/one | awk '$3 == "wanted" { print $1 }')
printf 'one+0x%X{%s};\n' $((16#$address - lowest + 1)) "$guid" >report

# expect WHAT PATTERN FOLDER...: PATTERN is in what is read with these folders.
expect() {
    local what=$1 pattern=$2 folder arguments=()
    shift 2
    for folder in "$@"; do arguments+=(--symbols "$folder"); done
    "$reader" read "${arguments[@]}" report >out 2>&1 || true
    grep -q -- "$pattern" out || { echo "$what: no \"$pattern\" in:"; cat out; exit 1; }
}
line='wanted .*wanted\.c:2'

expect "whole" "$line" whole
mkdir compressed stripped linked shared
objcopy --compress-debug-sections=zlib whole/one compressed/one
expect "compressed" "$line" compressed
objcopy --strip-all whole/one stripped/one
expect "stripped" "install the debug package with build-id $id" stripped
(cd linked && objcopy --only-keep-debug ../whole/one one.dbg &&
    objcopy --strip-all --add-gnu-debuglink=one.dbg ../whole/one one)
expect "by its link" "$line" linked
mkdir -p "tree/.build-id/${id:0:2}"
cp linked/one.dbg "tree/.build-id/${id:0:2}/${id:2}.debug"
expect "in a tree" "$line" stripped tree
cp whole/one whole/two shared
dwz --multifile="$scratch/shared/common" shared/one shared/two
readelf -S shared/one | grep -q gnu_debugaltlink
expect "shared" "$line" shared

# What nobody writes to is not waited for.
mkfifo shared/pipe "tree/.build-id/${id:0:2}/pipe"
(cd linked && objcopy --strip-all --add-gnu-debuglink=one.dbg ../whole/one ../shared/one)
mv shared/pipe shared/one.dbg
expect "a pipe by its link" 'stripped' shared
mv "tree/.build-id/${id:0:2}/pipe" "tree/.build-id/${id:0:2}/${id:2}.debug"
expect "a pipe in a tree" 'stripped' stripped tree

# The whole id, of which the report has 16 bytes, is the module's; without that nobody can be asked.
mkdir -p "site/buildid/$id"
"$compiler" -g -O1 -Wl,--build-id=sha1 wanted.c -o "site/buildid/$id/debuginfo"
python3 -u -c 'import functools, http.server as h
server = h.HTTPServer(("127.0.0.1", 0), functools.partial(h.SimpleHTTPRequestHandler, directory="site"))
print(server.server_port, flush=True)
server.serve_forever()' >port 2>requests &
server=$!
until [[ -s port ]] || ! kill -0 "$server"; do sleep 0.1; done
DEBUGINFOD_URLS="http://127.0.0.1:$(cat port)"
export DEBUGINFOD_URLS
expect "another module's from a server" 'gave another file' stripped
cp linked/one.dbg "site/buildid/$id/debuginfo"
DEBUGINFOD_CACHE_PATH+=2
expect "from a server" "$line" stripped
grep -q "GET /buildid/$id/debuginfo" requests
expect "a server without the whole id" 'cannot be asked: the report has only the first 16 bytes'
