#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT
#
# The frames of a report get names from the PDBs beside DLL and program, and none from another's.
#
#   named_frames.sh THREAD_UTILITIES FOLDER PROGRAM [ARGUMENT...]
set -euo pipefail
reader=$1 folder=$2
shift 2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

"$@" >"$scratch/report"
# Status 1: Wine's own modules have no names.
read_with() { "$reader" read --symbols "$1" "$scratch/report" >"$scratch/read" 2>"$scratch/why"; }
read_with "$folder" || [[ $? -eq 1 ]]
grep -q ' main  .*/profile_word_index/main.cpp:[1-9]' "$scratch/read"
grep -q 'ThreadUtilities::sampleAllThreads.*/sampling.cpp:[1-9]' "$scratch/read"

# The linker's path in the DLL leads to the right PDB from anywhere, so that is changed as well.
mkdir "$scratch/mixed"
LC_ALL=C sed 's/ThreadUtilities\.pdb/AnotherProgram_.pdb/' "$folder/ThreadUtilities.dll" \
    >"$scratch/mixed/ThreadUtilities.dll"
cp "$folder/profile_word_index.pdb" "$scratch/mixed/AnotherProgram_.pdb"
status=0
read_with "$scratch/mixed" || status=$?
[[ $status -eq 2 ]]
grep -q 'AnotherProgram_.pdb: has GUID .*: not used' "$scratch/why"
if grep 'sampleAllThreads' "$scratch/read"; then
    exit 1
fi
