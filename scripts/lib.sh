# SPDX-License-Identifier: Apache-2.0
# What the scripts share. To be sourced, from the top folder of the repository.

build_packages=(g++ cmake ninja-build hidl-gen android-libutils-dev android-liblog-dev
    android-libcutils-dev libcli11-dev libfmt-dev nlohmann-json3-dev libgtest-dev libgmock-dev)
test_packages=(clang clang-format pkgconf python3 python3-jsonschema blueprint-tools tmux jq)
fuzz_packages=(clang libclang-rt-dev)
bench_packages=(libbenchmark-dev libsystemd-dev dbus-broker valgrind strace)
[[ ! -e .git ]] || test_packages+=(git) # without, there is nothing to ask it

# Arguments.

# refuse <text>   a wrong command line
refuse() {
    echo "$(basename "$0"): $1 (--help explains)" >&2
    exit 2
}

# help_or_refuse [argument]...   none is well; --help prints the text at the script's head
help_or_refuse() {
    [[ $# -gt 0 ]] || return 0
    [[ $1 == -h || $1 == --help ]] || refuse "there is no '$1'"
    sed -n "2,/^[^#]/ { /^#/!d; /SPDX/d; s/^# \\{0,1\\}//; p }" "scripts/$(basename "$0")"
    exit 0
}

# check_sanitizer <name>   it names a preset, too
check_sanitizer() {
    [[ $1 == address || $1 == thread ]] || refuse "--sanitize takes address or thread, not '$1'"
}

# take_ctest_arguments [argument]...   into ctest_arguments
take_ctest_arguments() {
    ctest_arguments=(--no-tests=error)  # a pattern that fits none is a mistake
    while [[ $# -gt 0 ]]; do
        case $1 in
            -R | -E | -L | -LE)
                [[ $# -ge 2 ]] || refuse "$1 takes a pattern"
                ctest_arguments+=("$1" "$2")
                shift 2
                ;;
            --) shift && ctest_arguments+=("$@") && break ;;
            *) help_or_refuse "$1" ;;
        esac
    done
}

# Steps.

# start_log <name>   where the output of all steps goes
start_log() {
    if [[ -e build && ! -O build ]]; then
        echo "$PWD/build belongs to $(stat -c %U build), who could not go on with it after $(id -un) has" \
            "built there: run this as $(stat -c %U build), remove it, or take a copy of this folder." >&2
        exit 1
    fi
    if ! mkdir -p build/log 2>/dev/null; then
        echo "$PWD cannot be written by $(id -un): take a copy of this folder that is yours." >&2
        exit 1
    fi
    log=$PWD/build/log/$1.log
    : >"$log"
}

# say <text>   from inside a step: a line for whoever watches
say() { echo "==> $*"; }

# give_up <text>   from inside a step, which then fails: this is all there is to know
give_up() {
    echo "==! $1"
    return 1
}

# step <text> <command>...   how far it is while it goes on, then one line; the end of the log when
# it fails
step() {
    local text=$1 begin=$SECONDS from watcher status=0 reason
    shift
    from=$(stat -c %s "$log")
    rm -f "$log.done"
    watch_step "$text" "$from" &
    watcher=$!
    "$@" >>"$log" 2>&1 || status=$?
    : >"$log.done"
    wait "$watcher" || true
    rm -f "$log.done"
    if [[ $status -ne 0 ]]; then
        printf '%-52sfailed\n' "$text"
        reason=$(log_since "$from" | sed -n 's/^==! //p')
        printf '%s\nAll of it: %s\n' "${reason:-$(tail -n 40 "$log")}" "$log"
        exit 1
    fi
    printf '%-52s%4d s\n' "$text" $((SECONDS - begin))
}

log_since() { tail -c +$(($1 + 1)) "$log"; }

# watch_step <text> <where its log begins>   prints what say() said, and how far ninja or apt is: on a
# terminal beside the text, otherwise a line now and then. Until $log.done is there, or nobody is left
# to make it.
watch_step() {
    local text=$1 from=$2 begin=$SECONDS next=10 said=0 shown='' done='' tick line lines at
    [[ ! -t 1 ]] || printf '%-52s' "$text"
    while [[ -z $done ]] && kill -0 $$ 2>/dev/null; do
        for tick in 1 2 3 4 5; do
            [[ ! -e $log.done ]] || break
            sleep 0.2 >/dev/null 2>&1
        done
        [[ ! -e $log.done ]] || done=1
        mapfile -t lines < <(log_since "$from" | sed -n 's/^==> //p')
        for line in "${lines[@]:said}"; do
            if [[ -t 1 ]]; then
                printf '\r\e[K  %s\n%-52s' "$line" "$text"
            else
                printf '  %s\n' "$line"
            fi
        done
        said=${#lines[@]}
        at=$(log_since "$from" | tail -c 2000 | sed -nE -e 's/^\[([0-9]+\/[0-9]+)\].*/\1/p' \
            -e 's/^dlstatus:[0-9]+:([0-9]+).*/\1 % downloaded/p' \
            -e 's/^pmstatus:[^:]*:([0-9]+).*/\1 % installed/p' | tail -n 1)
        if [[ -t 1 ]]; then
            [[ $at == "$shown" ]] || printf '\r\e[K%-52s%s' "$text" "$at"
            shown=$at
        elif ((SECONDS - begin >= next)); then
            printf '  %s: %s after %d s\n' "$text" "${at:-at work}" $((SECONDS - begin))
            next=$((SECONDS - begin + 30))
        fi
    done
    [[ ! -t 1 ]] || printf '\r\e[K'
}

# Packages.

# install_packages <package>...   those that are not there yet; as root or through sudo
install_packages() {
    local missing=() sudo=() package
    for package in "$@"; do
        [[ $(dpkg-query -W -f '${Status}' "$package" 2>/dev/null) == 'install ok installed'* ]] ||
            missing+=("$package")
    done
    [[ ${#missing[@]} -gt 0 ]] || return 0
    local by_hand="apt-get install --no-install-recommends ${missing[*]}"
    command -v apt-get >/dev/null ||
        give_up "This takes packages of Debian 12, and here is no apt-get: ${missing[*]}" || return 1
    if [[ $(id -u) -ne 0 ]]; then
        command -v sudo >/dev/null && sudo true ||
            give_up "Packages are missing and you are neither root nor may use sudo. As root: $by_hand" ||
            return 1
        sudo=(sudo)
    fi
    local from
    from=$(stat -c %s "$log")
    apt_get update || true # what it could not fetch may be another's; if not, what follows fails
    local cost
    cost=$(apt_get install -y --no-install-recommends --assume-no -o Debug::NoLocking=1 "${missing[@]}" |
        sed -nE -e 's/.* ([0-9]+) newly installed.*/\1 packages to install/p' \
            -e 's/^Need to get ([^/]*)(\/.*)? of archives.*/\1 to download/p' \
            -e 's/.*operation, (.*) of additional disk.*/\1 on disk/p' | paste -sd, | sed 's/,/, /g')
    [[ -z $cost ]] || say "$cost"
    apt_get install -y --no-install-recommends -o APT::Status-Fd=1 "${missing[@]}" && return 0
    if log_since "$from" | grep -E 'Could not (resolve|connect)|Temporary failure|timed out|unreachable' \
        >/dev/null; then
        give_up "No connection to the package sources of this machine, so these cannot be had: ${missing[*]}"
    elif log_since "$from" | grep -E 'Unable to locate package|no installation candidate' >/dev/null; then
        give_up "The package sources of this machine lack some of these, which Debian 12 has: ${missing[*]}"
    fi
    return 1
}

# apt_get <argument>...   waits while another program, such as a fresh machine's own upgrade, holds one
# of its locks
apt_get() {
    local from holder said='' until=$((SECONDS + 1800))
    while true; do
        from=$(stat -c %s "$log")
        "${sudo[@]}" env LC_ALL=C DEBIAN_FRONTEND=noninteractive ${http_proxy:+"http_proxy=$http_proxy"} \
            apt-get "$@" && return 0
        holder=$(log_since "$from" | sed -nE 's/.*Could not get lock .* held by process (.*)/\1/p')
        holder=${holder##*$'\n'}
        [[ -n $holder ]] || return 1
        ((SECONDS < until)) ||
            give_up "Process $holder has held the package manager for half an hour." || return 1
        [[ -n $said ]] || say "waiting for process $holder, which uses the package manager"
        said=1
        sleep 3
    done
}

# Building.

# build <preset> [target]...   everything, or these targets
build() {
    local preset=$1
    shift
    cmake --preset "$preset" || return 1
    cmake --build --preset "$preset" ${1:+--target "$@"} | tell_cost "$preset"
}

# tell_cost <preset>   passes ninja's output on, with a word on what a long build takes: by what a step
# took and left where this was measured, without other load
tell_cost() {
    local line told='' steps megabytes processors
    processors=$(nproc)
    while IFS= read -r line; do
        printf '%s\n' "$line"
        [[ -z $told && $line =~ ^\[[0-9]+/([0-9]+)\] ]] || continue
        steps=${BASH_REMATCH[1]}
        ((steps >= 20)) || continue
        told=1
        megabytes=$((5 * steps / 2))
        [[ $1 != address ]] || megabytes=$((2 * megabytes))
        say "$steps steps: $((3 * steps / processors / 60 + 1)) minutes or more on $processors processors," \
            "some $megabytes MB in build/$1"
    done
}

# A finding ends its process, so that its test fails whatever it asserts.
export_sanitizer_options() {
    export ASAN_OPTIONS=abort_on_error=0:detect_stack_use_after_return=1
    export UBSAN_OPTIONS=print_stacktrace=1
    export TSAN_OPTIONS=halt_on_error=1:suppressions=$PWD/tests/tsan.supp
}
