# SPDX-License-Identifier: Apache-2.0
# Bash completion for activityctl. Names come from the running service, if there is one.

_activityctl() {
    local word=${COMP_WORDS[COMP_CWORD]} side= command= words i
    for ((i = 1; i < COMP_CWORD; ++i)); do
        case ${COMP_WORDS[i]} in
            env | scenario) side=${COMP_WORDS[i]} ;;
            status | check | dump | top | sweep | timeline | record | list | current | watch | enable | disable | flush | init | exit)
                command=${COMP_WORDS[i]}
                ;;
        esac
    done
    case ${COMP_WORDS[COMP_CWORD - 1]},$side,$command in
        -i,* | --interface,*) words="1.0 1.1" ;;
        --instance,*) words=default ;;
        *,env,) words="list current init exit enable disable watch record --help" ;;
        *,scenario,) words="check --help" ;;
        *,scenario,check)
            compopt -o filenames
            mapfile -t COMPREPLY < <(compgen -f -- "$word")
            return
            ;;
        *,,) words="status dump top sweep timeline record list current watch enable disable flush env scenario
            --help --version --instance --interface --json --raw --wait" ;;
        *,watch | *,enable | *,disable | *,init | *,exit)
            words="$(activityctl $side list 2>/dev/null | awk '{print $2}')
                --help --latency --params --name --no-wake"
            [[ $command != watch ]] || words+=" --count"
            [[ $command != watch && $command != enable ]] || words+=" --for --control --reconnect"
            ;;
        *,record)
            words="$(activityctl $side list 2>/dev/null | awk '{print $2}')
                --help --latency --params --name --no-wake --count --for --every"
            mapfile -t COMPREPLY < <(compgen -f -W "$words" -- "$word")
            return
            ;;
        *,timeline)
            mapfile -t COMPREPLY < <(compgen -f -W "--help --output --even" -- "$word")
            return
            ;;
        *,top) words="--help --count --for" ;;
        *,sweep) words="$(activityctl sweep --dry-run 2>/dev/null | awk '/^would/ {print $3}') --help --dry-run" ;;
        *) words=--help ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}
complete -F _activityctl activityctl
