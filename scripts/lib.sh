# What the scripts share. To be sourced, from the top folder of the repository.

build_packages=(g++ cmake ninja-build git hidl-gen android-libutils-dev android-liblog-dev
    android-libcutils-dev libcli11-dev libfmt-dev nlohmann-json3-dev libgtest-dev libgmock-dev)
test_packages=(clang clang-format python3 blueprint-tools)
bench_packages=(libbenchmark-dev libsystemd-dev dbus-broker valgrind strace)

# start_log <name>   where the output of all steps goes
start_log() {
    mkdir -p build/log
    log=$PWD/build/log/$1.log
    : >"$log"
}

# step <text> <command>...   one line a step; the end of the log when it fails
step() {
    local text=$1 begin=$SECONDS
    shift
    printf '%-52s' "$text"
    if ! "$@" >>"$log" 2>&1; then
        printf 'failed\n%s\nAll of it: %s\n' "$(tail -n 40 "$log")" "$log"
        exit 1
    fi
    printf '%4d s\n' $((SECONDS - begin))
}

# install_packages <package>...   those that are not there yet; as root or through sudo
install_packages() {
    local missing=() sudo=() package
    for package in "$@"; do
        dpkg -s "$package" 2>/dev/null | grep -q '^Status: install ok installed' ||
            missing+=("$package")
    done
    [[ ${#missing[@]} -gt 0 ]] || return 0
    [[ $(id -u) -eq 0 ]] || sudo=(sudo)
    export DEBIAN_FRONTEND=noninteractive
    "${sudo[@]}" apt-get update
    "${sudo[@]}" apt-get install -y --no-install-recommends "${missing[@]}"
}

# build <preset> [target]...   everything, or these targets
build() {
    local preset=$1
    shift
    cmake --preset "$preset" && cmake --build --preset "$preset" ${1:+--target "$@"}
}

# A finding ends its process, so that its test fails whatever it asserts.
export_sanitizer_options() {
    export ASAN_OPTIONS=abort_on_error=0:detect_stack_use_after_return=1
    export UBSAN_OPTIONS=print_stacktrace=1
    export TSAN_OPTIONS=halt_on_error=1:suppressions=$PWD/tests/tsan.supp
}
