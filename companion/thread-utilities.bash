# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT
#
# Completion for bash.
_thread_utilities() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
    local command=${COMP_WORDS[1]} common="--symbols --short --help"
    COMPREPLY=()
    if [[ $COMP_CWORD -eq 1 ]]; then
        mapfile -t COMPREPLY < <(compgen -W "read convert compare stacks sample --help --version" -- "$word")
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
    if [[ $before == --thread && ${COMP_WORDS[2]} =~ ^[0-9]+$ ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(ls "/proc/${COMP_WORDS[2]}/task" 2>&-)" -- "$word")
    elif [[ $word == -* ]]; then
        case $command in
            read) common+=" --pid --all --json" ;;
            convert) common+=" --pid --to --output" ;;
            compare) common+=" --pid --html --all" ;;
            stacks) common+=" --watch --raw --json" ;;
            sample) common+=" --duration --interval --thread --output" ;;
        esac
        mapfile -t COMPREPLY < <(compgen -W "$common" -- "$word")
    elif [[ $command == sta* || $command == sam* ]] && [[ $COMP_CWORD -eq 2 ]]; then
        mapfile -t COMPREPLY < <(cd /proc && compgen -G "[0-9]*" | grep "^$word")
    else
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
    fi
}
complete -o filenames -F _thread_utilities thread-utilities
