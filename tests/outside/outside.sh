#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Installs a build, moves it, and uses it as somebody does who has never seen the tree: builds both
# templates against it, checks the module, and runs service and client from there.
#
#   outside.sh BUILD TEMPLATES CXX
set -euo pipefail
build=$1 templates=$2
export CXX=$3 CMAKE_GENERATOR=Ninja

work=$(mktemp -d)
# Until all have gone: whoever still runs writes there.
trap 'kill $(jobs -p) 2>/dev/null || true; wait || true; rm -rf "$work"' EXIT
unset "${!HIDL_@}" "${!AR_@}"
export XDG_RUNTIME_DIR=$work/run
mkdir -m 700 "$work/run"

cmake --install "$build" --prefix "$work/first" >/dev/null
mv "$work/first" "$work/prefix"
cp -r "$templates"/{client,module} "$work"
for name in client module; do
    cmake -S "$work/$name" -B "$work/$name/build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
    cmake --build "$work/$name/build"
done
export PKG_CONFIG_PATH=$work/prefix/lib/pkgconfig
read -ra flags < <(pkg-config --cflags --libs activity_recognition-client)
"$CXX" "$work/client/client.cpp" "${flags[@]}" -o "$work/by-pkg-config"
read -ra flags < <(pkg-config --cflags activity_recognition-native)
"$CXX" -fsyntax-only "$work/module/module.cpp" "${flags[@]}"

module=$work/module/build/activity_recognition.template.so
"$work/prefix/bin/modulecheck" --strict --tolerance 3 --module "$module"

start_service() {
    "$work"/prefix/bin/*-service 2>>"$work/log" &
    service=$!
}
# waits_for <times> <text> <file>
waits_for() {
    for _ in {1..200}; do
        [[ $(grep -c "$2" "$3") -lt $1 ]] || return 0
        sleep 0.1
    done
    echo "no '$2' in $3:" && cat "$3"
    return 1
}

# The simulator, which nothing names: walking begins within seconds in its commuter's day.
"$work/client/build/activity_client" 1 1 >"$work/events" 2>"$work/said" &
client=$!
start_service
waits_for 1 "waiting for activity 1" "$work/said"
waits_for 1 "activity 1, event type 1" "$work/events"
"$work/prefix/bin/activityctl" status | grep -q "supported: still, walking"
before=$(wc -l <"$work/events")
kill -9 "$service"
wait "$service" || true # its name is taken until it is gone
waits_for 1 "the service died" "$work/said"
start_service
waits_for 2 "waiting for activity 1" "$work/said"
waits_for $((before + 1)) "activity 1, event type 1" "$work/events"
kill "$client"
wait "$client"

# The template's own module.
kill "$service" && wait "$service" || true
cp "$module" "$work/prefix/lib/activity_recognition/hw"
export HIDL_HOST_HARDWARE=template
start_service
HIDL_HOST_TRACE=$work/trace timeout 20 "$work/by-pkg-config" 0 1 >"$work/events" 2>"$work/said" &
client=$!
waits_for 1 "activity 0, event type 1" "$work/events"
grep -q "onActivityChangedV1_1::server$" "$work/trace" # link lines have the runtime's tracer first
echo "installed, moved, built against and used"
