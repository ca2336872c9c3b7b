# SPDX-License-Identifier: Apache-2.0
"""Runs the benchmark's programs: servers with their clients, the in-process benchmark, and both under
tools that count. Times are in microseconds."""
import concurrent.futures
import contextlib
import json
import os
import pathlib
import re
import resource
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = ROOT / "build/release"
IN_PROCESS = BUILD / "bin/HalActivityRecognitionV1_1Benchmark"
SERVICE = BUILD / "bin/vendor.zaltho.hardware.activity_recognition@1.1-service"
LOG_OFF = BUILD / "lib/libbench_log_off.so"
ERRORS = ROOT / "build/log/bench-errors.txt"
LOG = ROOT / "build/log/bench-service.txt"

CPU = max(os.sched_getaffinity(0))  # all that is timed runs on one: a wake-up across two costs more


def pinned(cpus):
    return lambda: os.sched_setaffinity(0, cpus)


def others():
    """Where what must not disturb runs, if there is such a place."""
    return os.sched_getaffinity(0) - {CPU} or {CPU}


class Peer:
    """A server of bench_peers, or the service with the benchmark's native module: one order a line,
    one line of samples back. Its clients go with it."""

    def __init__(self, *command, folder=None, log=None, cpus=None, **options):
        environment = {**os.environ, "HIDL_HOST_HARDWARE": "bench"}
        if folder:
            environment["HIDL_HOST_DIR"] = str(folder)
        if log is None:
            environment["LD_PRELOAD"] = str(LOG_OFF)
        with ERRORS.open("a") as errors:
            self.process = subprocess.Popen(
                [str(part) for part in command], text=True, env=environment,
                stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=log or errors,
                preexec_fn=pinned(cpus or {CPU}), **options)
        self.pids = [self.process.pid] + [int(pid) for pid in self.line("ready").split()[1:]]

    def ended(self):
        name = [pathlib.Path(self.process.args[0]).name, *self.process.args[1:]]
        return RuntimeError(f"{' '.join(name)} ended ({self.process.wait(10)}), see {ERRORS}")

    def line(self, start):
        line = self.process.stdout.readline()
        if not line.endswith("\n") or not line.startswith(start):
            raise self.ended()
        return line

    def begin(self, order):
        try:
            self.process.stdin.write(f"{order}\n")
            self.process.stdin.flush()
        except BrokenPipeError:
            raise self.ended() from None

    def end(self):
        return [int(word) / 1000 for word in self.line("").split()]

    def samples(self, order):
        self.begin(order)
        return self.end()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        with contextlib.suppress(BrokenPipeError):
            self.process.stdin.close()
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.process.stdout.close()


def peers(role, *arguments, **options):
    return Peer(BUILD / "bin/bench_peers", role, *arguments, **options)


class Folders:
    """A name space for each service, below a folder that goes with this."""

    def __enter__(self):
        self.top = pathlib.Path(tempfile.mkdtemp(prefix="bench-"))
        return self

    def new(self):
        return tempfile.mkdtemp(dir=self.top)

    def __exit__(self, *_):
        shutil.rmtree(self.top, ignore_errors=True)


class Figure:
    """Samples of one thing, round by round."""

    def __init__(self, share=1):
        self.share = share  # of a sample, the part that is asked for: one client's of N
        self.rounds = []

    def add(self, samples):
        self.rounds.append([sample / self.share for sample in samples])

    def medians(self):
        return [statistics.median(samples) for samples in self.rounds]

    def summary(self):
        ordered = sorted(sample for samples in self.rounds for sample in samples)
        medians = self.medians()
        return {"median": statistics.median(ordered), "min": ordered[0],
                "p99": ordered[min(len(ordered) - 1, len(ordered) * 99 // 100)],
                "max": ordered[-1], "low": min(medians), "high": max(medians),
                "samples": len(ordered)}


def in_process(name, iterations, log_off=True):
    """Microseconds of processor time an iteration: nothing in it waits."""
    environment = {**os.environ, **({"LD_PRELOAD": str(LOG_OFF)} if log_off else {})}
    with tempfile.TemporaryFile("w+") as log:  # a reader's wake-ups would be part of the figure
        done = subprocess.run([IN_PROCESS, f"--benchmark_filter=^{name}(/iterations:.*)?$",
                               "--benchmark_format=json", f"--iterations={iterations}"],
                              env=environment, text=True, stdout=subprocess.PIPE,
                              stderr=log, preexec_fn=pinned({CPU}), cwd=BUILD)
        if done.returncode:
            log.seek(0)
            raise RuntimeError(f"{name}: {log.read()[-2000:]}")
    figure, = json.loads(done.stdout)["benchmarks"]
    return figure["cpu_time"] / {"ns": 1000, "us": 1, "ms": 0.001}[figure["time_unit"]]


def deliveries(clients, rounds, samples, routing_iterations, progress):
    """What a delivery to so many clients costs each of them, by every way, in turn."""
    ways = {}
    with contextlib.ExitStack() as stack:
        folders = stack.enter_context(Folders())

        def service(log=None):
            folder = folders.new()
            served = stack.enter_context(Peer(SERVICE, folder=folder, log=log))
            stack.enter_context(peers("watchers", clients, folder=folder))
            return served

        ways["raw"] = stack.enter_context(peers("raw", clients))
        ways["transport alone"] = stack.enter_context(peers("callbacks", clients, folders.new()))
        ways["whole delivery"] = service()
        # A file takes each line at once, where a reader would take the processor as well.
        log = stack.enter_context(LOG.open("w"))
        ways["whole delivery, log on"] = service(log)
        ways["D-Bus, peer to peer"] = stack.enter_context(peers("bus-peers", clients))
        ways["dbus-broker"] = stack.enter_context(peers("bus-broker", clients))
        if clients == 1:
            ways["floor"] = stack.enter_context(peers("floor"))
        figures = {name: Figure(clients) for name in ways}
        figures["routing"] = Figure(clients)
        figures["routing, log on"] = Figure(clients)
        if clients == 1:
            figures["lock pairs"] = Figure()
        for way in ways.values():
            way.samples(samples)  # warms up
        for at in range(rounds):
            progress(at, rounds)
            for name, way in ways.items():
                figures[name].add(way.samples(samples))
            delivery = f"Delivery/{clients}"
            figures["routing"].add([in_process(delivery, routing_iterations)])
            figures["routing, log on"].add([in_process(delivery, routing_iterations, False)])
            if clients == 1:
                figures["lock pairs"].add([in_process("LockPairs/192", 20000)])
    return figures


def calls(rounds, samples, progress):
    """A small call from a client and back."""
    with Folders() as folders, peers("ping") as ping, peers("call", folders.new()) as call:
        figures = {"raw ping-pong": Figure(), "two-way call": Figure()}
        for at in range(rounds):
            progress(at, rounds)
            figures["raw ping-pong"].add(ping.samples(samples))
            figures["two-way call"].add(call.samples(samples))
    return figures


def deaths(rounds, samples, progress):
    """From SIGKILL until the service has cleaned up; until a socket of a like client hangs up."""
    with Folders() as folders:
        logged, silent = folders.new(), folders.new()
        log, into = os.pipe()
        with Peer(SERVICE, folder=logged, log=into), \
                Peer(SERVICE, folder=silent, cpus=others()), \
                peers("deaths", log, folder=logged, pass_fds=[log]) as death, \
                peers("hangups", folder=silent) as hangup:
            os.close(into)
            os.close(log)
            figures = {"cleanup": Figure(), "raw hang-up": Figure()}
            for at in range(rounds):
                progress(at, rounds)
                figures["raw hang-up"].add(hangup.samples(samples))
                figures["cleanup"].add(death.samples(samples))
    return figures


def enable_wait(clients, batches, progress):
    """What enables and disables wait while full batches go to so many clients, one after another."""
    with Folders() as folders:
        folder = folders.new()
        with Peer(SERVICE, folder=folder) as service, \
                peers("watchers", clients, folder=folder), \
                peers("enabler", folder=folder) as enabler:
            progress(0, 1)
            alone = Figure()
            alone.add(enabler.samples(300))
            batch = service.samples(2)[-1]
            service.begin(batches)
            during = Figure()
            during.add(enabler.samples(max(1, int(batch * (batches - 1) / 1000))))
            figure = Figure()
            figure.add(service.end())
    return {"enable alone": alone, "enable during batches": during,
            f"batch to {clients}": figure}


def system_calls(deliveries_):
    """System calls a delivery, service and client together: the difference of two runs."""
    with Folders() as folders:
        folder = folders.new()
        with Peer(SERVICE, folder=folder) as service, \
                peers("watchers", 1, folder=folder) as client:
            totals = []
            for count in (deliveries_, 2 * deliveries_):
                output = folders.top / "strace"
                errors = folders.top / "strace-errors"
                with errors.open("w") as into:
                    strace = subprocess.Popen(
                        ["strace", "-f", "-c", "-U", "calls,name", "-o", output,
                         "-p", str(service.pids[0]), "-p", str(client.pids[1])],
                        stderr=into)
                deadline = time.monotonic() + 10
                while errors.read_text().count("attached") < 2:
                    if time.monotonic() > deadline or strace.poll() is not None:
                        strace.kill()
                        raise RuntimeError(f"strace: {errors.read_text()}")
                    time.sleep(0.05)
                service.samples(count)
                strace.send_signal(signal.SIGINT)
                strace.wait()
                totals.append(int(re.search(r"(\d+) total", output.read_text()).group(1)))
    # A timeout of the runtime's may come in between.
    return round((totals[1] - totals[0]) / deliveries_, 2)


# So many that the difference of two runs hides what little else they differ in, and few enough for
# valgrind.
COUNTED = {
    "Delivery/1": 200, "Delivery/10": 100, "Delivery/100": 20, "Delivery/1000": 5,
    "DeliveryToOneOf/1": 200, "DeliveryToOneOf/1000": 200,
    "DeliveryBehindChange/10": 100, "DeliveryBehindChange/10000": 50,
    "EnableDisableShared/10": 1000, "EnableDisableShared/10000": 200,
    "EnableDisableAlone/10": 1000, "EnableDisableAlone/10000": 200,
    # Its own deaths count as earlier ones too.
    "RegistrationAndDeath/0": 50, "RegistrationAndDeath/10000": 200,
    "KeyedVectorInsertion/0": 50, "KeyedVectorInsertion/10000": 200,
}


def count(name):
    """Instructions an iteration: the difference between so many iterations and twice as many."""
    totals = []
    for iterations in (COUNTED[name], 2 * COUNTED[name]):
        done = subprocess.run(
            ["valgrind", "--tool=cachegrind", "--cache-sim=no", "--cachegrind-out-file=/dev/null",
             IN_PROCESS, f"--benchmark_filter=^{name}(/iterations:.*)?$",
             f"--iterations={iterations}"],
            env={**os.environ, "LD_PRELOAD": str(LOG_OFF)}, cwd=BUILD,
            text=True, capture_output=True)
        total = re.search(r"I\s+refs:\s+([\d,]+)", done.stderr)
        if done.returncode or not total:
            raise RuntimeError(f"{name} under valgrind: {done.stderr[-2000:]}")
        totals.append(int(total.group(1).replace(",", "")))
    return (totals[1] - totals[0]) / COUNTED[name]


def instructions(progress):
    counted = {}
    # The longest first: the others fit in beside them.
    names = sorted(COUNTED, key=lambda name: -int(name.split("/")[1]))
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for at, (name, result) in enumerate(zip(names, pool.map(count, names))):
            progress(at, len(names))
            counted[name] = result
    return {name: counted[name] for name in COUNTED}


def surroundings():
    """What instructions depend on."""
    cache = (BUILD / "CMakeCache.txt").read_text()
    compiler = re.search(r"^CMAKE_CXX_COMPILER:\w+=(.+)$", cache, re.M).group(1)

    def first_line(*command):
        return subprocess.run(command, text=True, capture_output=True,
                              check=True).stdout.splitlines()[0]

    return {"compiler": first_line(compiler, "--version"),
            "libc": first_line("dpkg-query", "-W", "-f", "${Package} ${Version}\n", "libc6"),
            "architecture": os.uname().machine}


def machine():
    return {"processors": os.cpu_count(), "kernel": os.uname().release.split("-")[0],
            "virtual": "hypervisor" in pathlib.Path("/proc/cpuinfo").read_text()}


def prepare():
    ERRORS.parent.mkdir(parents=True, exist_ok=True)
    ERRORS.write_text("")
    # A thousand clients take a few descriptors each.
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))


if __name__ == "__main__":
    # Whether all of it runs at all.
    prepare()
    for together in (deliveries(3, 1, 2, 2, print), calls(1, 2, print), deaths(1, 2, print),
                     enable_wait(3, 20, print)):
        for name, figure in together.items():
            if not 0 < figure.summary()["median"] < 1e6:
                sys.exit(f"{name}: {figure.rounds}")
