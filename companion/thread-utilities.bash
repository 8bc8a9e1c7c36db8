# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT
#
# Completion for bash.
_thread_utilities() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
    local common="--symbols --pid --short --help"
    COMPREPLY=()
    if [[ $COMP_CWORD -eq 1 ]]; then
        mapfile -t COMPREPLY < <(compgen -W "read convert compare --help --version" -- "$word")
        return
    fi
    case $before in
        --to)
            mapfile -t COMPREPLY < <(compgen -W "html folded speedscope pprof firefox" -- "$word")
            return
            ;;
        --symbols)
            mapfile -t COMPREPLY < <(compgen -d -- "$word")
            return
            ;;
        --pid)
            mapfile -t COMPREPLY < <(cd /proc && compgen -G "[0-9]*" | grep "^$word")
            return
            ;;
    esac
    if [[ $word == -* ]]; then
        case ${COMP_WORDS[1]} in
            read) common+=" --all --json" ;;
            convert) common+=" --to --output" ;;
            compare) common+=" --html --all" ;;
        esac
        mapfile -t COMPREPLY < <(compgen -W "$common" -- "$word")
    else
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
    fi
}
complete -o filenames -F _thread_utilities thread-utilities
