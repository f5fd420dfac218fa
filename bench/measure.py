"""Measures the daemon and what it is compared with, and prints a line of CSV for each series of figures.

Run by scripts/bench in the private root."""

import argparse
import collections
import contextlib
import csv
import ctypes
import functools
import gc
import itertools
import json
import mmap
import os
import pathlib
import random
import select
import shutil
import socket
import statistics
import struct
import subprocess
import sys
import time

PROGRAMS = "/usr/libexec/kx-bench/"
SCRATCH = "/run/bench/"
FIRST_ACCOUNT = 4000
PATIENCE = 30  # seconds that anything may take

# Service, object and interface; a call adds the method.
APPLICATIONS = "com.veltrasys.kx.core /Applications com.veltrasys.kx.core.Applications "
TOOLS = "com.veltrasys.kx.core /Tools com.veltrasys.kx.core.Tools "
QT = "com.veltrasys.bench.Qt / com.veltrasys.bench.Qt "
RECORDS = "com.veltrasys.bench.Records / com.veltrasys.bench.Records "
BUS_DAEMON = "org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus "
CHEAPEST, ENUMERATE, QT_PING = TOOLS + "IsAudiopaydEnabled", APPLICATIONS + "Enumerate", QT + "Ping"

DAEMON = ("/usr/sbin/kxcore", "--no-daemon")
QT_SERVICE = (PROGRAMS + "qt-service",)
SERVICES = 16  # of each supervisor, which waits a second before it runs the same one again


# --- programs and the bus -----------------------------------------------------------------------------------

def wait_for(condition):
    """Waits until the condition holds, and returns its value."""
    deadline = time.monotonic() + PATIENCE
    while not (value := condition()):
        if time.monotonic() > deadline:
            raise TimeoutError("waited in vain")
        time.sleep(0.001)
    return value


class Bus:
    """A client on the bus, on sd-bus: of a call nothing but sd_bus_call is within the time that is taken."""

    sd = ctypes.CDLL("libsystemd.so.0")
    patience = ctypes.c_uint64(PATIENCE * 1_000_000)

    def __init__(self, address="unix:path=/run/dbus/system_bus_socket"):
        self.bus = ctypes.c_void_p()
        self.check(self.sd.sd_bus_new(ctypes.byref(self.bus)))
        self.check(self.sd.sd_bus_set_address(self.bus, address.encode()))
        self.check(self.sd.sd_bus_set_bus_client(self.bus, 1))
        self.check(self.sd.sd_bus_start(self.bus))

    def close(self):
        self.sd.sd_bus_flush_close_unref(self.bus)

    @staticmethod
    def check(result):
        if result < 0:
            raise OSError(-result, os.strerror(-result))
        return result

    def call(self, method, types="", *values, may_fail=False):
        """Calls and returns when it was asked and when answered, in nanoseconds."""
        values = [value.encode() if isinstance(value, str) else value for value in values]
        message, reply = ctypes.c_void_p(), ctypes.c_void_p()
        self.check(self.sd.sd_bus_message_new_method_call(
            self.bus, ctypes.byref(message), *method.encode().split()))
        self.check(self.sd.sd_bus_message_append(message, types.encode(), *values))
        asked = time.monotonic_ns()
        result = self.sd.sd_bus_call(self.bus, message, self.patience, None, ctypes.byref(reply))
        answered = time.monotonic_ns()
        self.sd.sd_bus_message_unref(message)
        self.sd.sd_bus_message_unref(reply)
        if not may_fail:
            self.check(result)
        return asked, answered

    def answers(self, method):
        with contextlib.suppress(OSError):
            return self.call(method)

    def start(self, binary, params=""):
        """Has the daemon start a program of the first application."""
        return self.call(APPLICATIONS + "Start", "a{sv}", 3, "application", "s", name_of(0),
                         "binary", "s", binary, "params", "s", params)

    def elapsed(self, method):
        """The nanoseconds from call to answer."""
        asked, answered = self.call(method)
        return answered - asked

    def watch(self, name):
        rule = f"type='signal',member='NameOwnerChanged',arg0='{name}',arg1=''"
        self.call(BUS_DAEMON + "AddMatch", "s", rule)

    def await_name(self):
        """Returns when the watched name has an owner, in nanoseconds."""
        while True:
            message = ctypes.c_void_p()
            handled = self.check(self.sd.sd_bus_process(self.bus, ctypes.byref(message)))
            seen = time.monotonic_ns()
            is_change = message and self.sd.sd_bus_message_is_signal(message, None, b"NameOwnerChanged") > 0
            self.sd.sd_bus_message_unref(message)
            if is_change:
                return seen
            if handled == 0 and self.check(self.sd.sd_bus_wait(self.bus, self.patience)) == 0:
                raise TimeoutError("no owner of a name")


class Program(subprocess.Popen):
    """A program that runs until the block ends; `executed` is when it was executed, in nanoseconds."""

    def __init__(self, *command):
        with mmap.mmap(-1, 8) as page:
            def stamp():
                page[:] = struct.pack("q", time.monotonic_ns())
            # The descriptors of the driver are close-on-exec, so nothing happens between stamp and exec.
            super().__init__(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                             stderr=subprocess.DEVNULL, preexec_fn=stamp, close_fds=False)
            self.executed, = struct.unpack("q", page[:])

    def __exit__(self, *error):
        self.terminate()
        self.wait(PATIENCE)

    def memory(self, key, first=0, end=1 << 64):
        """The kB that smaps counts as `key` in the mappings between two addresses."""
        total, within = 0, False
        for line in pathlib.Path(f"/proc/{self.pid}/smaps").read_text().splitlines():
            name, value = line.split()[:2]
            if not name.endswith(":"):
                within = first <= int(name.split("-")[0], 16) < end
            elif within and name == key + ":":
                total += int(value)
        return total

    def tasks(self):
        """The status of each thread, as a map."""
        for status in pathlib.Path(f"/proc/{self.pid}/task").glob("*/status"):
            yield dict(line.split(":\t", 1) for line in status.read_text().splitlines())


@contextlib.contextmanager
def serving(method, *command):
    """A program, started and answering this method."""
    bus = Bus()
    with Program(*command) as program:
        wait_for(lambda: bus.answers(method))
        bus.close()
        yield program


def name_of(number):
    return f"app{number:04}"


def install(count):
    """Replaces all applications by so many new ones, each with an account and configuration of its own."""
    accounts = [(name_of(number), FIRST_ACCOUNT + number) for number in range(count)]
    for path, form in (("/etc/passwd", "{0}:x:{1}:{1}::/home/{0}:/bin/sh\n"), ("/etc/group", "{0}:x:{1}:\n")):
        others = [line for line in open(path) if ":x:4" not in line]
        pathlib.Path(path).write_text("".join(others + [form.format(*account) for account in accounts]))
    for parent in ("/home", "/var/run/www"):
        shutil.rmtree(parent, ignore_errors=True)
        os.makedirs(parent, exist_ok=True)
    for name, account in accounts:
        home = f"/home/{name}"
        os.makedirs(home + "/bin")
        shutil.copy(PROGRAMS + "stamp", home + "/bin")
        shutil.copy(PROGRAMS + "app.conf", home)
        os.chown(home, account, account)


# --- launchers: each asks for a launch and returns when it asked, in nanoseconds ----------------------------

def activation(exits):
    """dbus-daemon. The helper as installed belongs to another group than the private root's message bus."""
    helper, address = SCRATCH + "launch-helper", SCRATCH + "bus"
    shutil.copy("/usr/lib/dbus-1.0/dbus-daemon-launch-helper", helper)
    shutil.chown(helper, "root", "messagebus")
    os.chmod(helper, 0o4750)
    exits.enter_context(Program("dbus-daemon", "--nofork", f"--config-file={PROGRAMS}activation.conf"))
    wait_for(lambda: os.path.exists(address))
    bus = Bus("unix:path=" + address)
    # The program does not take the name, so the answer is an error, which comes when the program has ended.
    return lambda: bus.call(BUS_DAEMON + "StartServiceByName", "su", "com.veltrasys.bench.Stamp", 0,
                            may_fail=True)[0]


def supervisor(exits, supervise, change_identity):
    """runit or s6: folders with a script, each with a supervisor that takes orders from a pipe in there."""
    controls = []
    for number in range(SERVICES):
        folder = pathlib.Path(SCRATCH) / f"{supervise}-{number}"
        folder.mkdir()
        (folder / "down").touch()
        (folder / "run").write_text(f"#!/bin/sh\nexec {change_identity} {name_of(0)} {PROGRAMS}stamp\n")
        (folder / "run").chmod(0o755)
        exits.enter_context(Program(supervise, str(folder)))
        wait_for((folder / "supervise/control").exists)
        controls.append(os.open(folder / "supervise/control", os.O_RDWR))

    turns = itertools.cycle(controls)

    def launch():
        control = next(turns)
        asked = time.monotonic_ns()
        os.write(control, b"o")
        return asked
    return launch


def supervisord(exits):
    exits.enter_context(Program("supervisord", "-c", PROGRAMS + "supervisord.conf"))
    address = SCRATCH + "supervisord"
    wait_for(lambda: os.path.exists(address))
    services = itertools.cycle(range(SERVICES))

    def launch():
        body = ("<?xml version='1.0'?><methodCall><methodName>supervisor.startProcess</methodName><params>"
                f"<param><value><string>stamp:{next(services)}</string></value></param>"
                "<param><value><boolean>0</boolean></value></param></params></methodCall>")
        head = f"POST /RPC2 HTTP/1.0\r\nContent-Type: text/xml\r\nContent-Length: {len(body)}\r\n\r\n"
        with socket.socket(socket.AF_UNIX) as connection:
            connection.settimeout(PATIENCE)
            asked = time.monotonic_ns()
            connection.connect(address)
            connection.sendall((head + body).encode())
            answer = b"".join(iter(lambda: connection.recv(4096), b""))
        if b"<boolean>1</boolean>" not in answer:
            raise RuntimeError(f"supervisord: {answer}")
        return asked
    return launch


# --- cases: each adds figures as add(series, variant, unit, figure) -----------------------------------------

def by_turns(turns, *measurements):
    """Makes each measurement once a turn, in an order that changes and is the same in every run."""
    order, shuffle = list(measurements), random.Random(1).shuffle
    for _ in range(turns):
        shuffle(order)
        for measurement in order:
            measurement()


def round_trip(add, turns):
    install(0)
    bus = Bus()

    def batch(series, method):
        bus.call(method)  # its caches are warm again
        for _ in range(10):
            add(series, "", "µs", bus.elapsed(method) / 1e3)
    with serving(CHEAPEST, *DAEMON), serving(QT_PING, *QT_SERVICE):
        by_turns(turns, lambda: batch("kxcore", CHEAPEST), lambda: batch("bare QtDBus", QT_PING))


def launch(add, turns):
    install(1)
    os.mkfifo(SCRATCH + "stamp")
    os.chmod(SCRATCH + "stamp", 0o666)
    pipe = os.open(SCRATCH + "stamp", os.O_RDWR)
    bus = Bus()

    def latency(series, ask):
        time.sleep(0.005)  # until the launcher before has collected its child
        asked = ask()
        if not select.select([pipe], [], [], PATIENCE)[0]:
            raise TimeoutError(f"{series} did not launch the program")
        seconds, nanoseconds = struct.unpack("qq", os.read(pipe, 16))
        add(series, "", "ms", (seconds * 10**9 + nanoseconds - asked) / 1e6)

    with contextlib.ExitStack() as exits:
        exits.enter_context(serving(CHEAPEST, *DAEMON))
        exits.enter_context(serving(QT_PING, *QT_SERVICE))
        launchers = {
            "kxcore": lambda: bus.start("stamp")[0],
            "bare QtDBus": lambda: bus.call(QT + "Start", "su", PROGRAMS + "stamp", FIRST_ACCOUNT)[0],
            "dbus-daemon": activation(exits),
            "runit": supervisor(exits, "runsv", "chpst -u"),
            "s6": supervisor(exits, "s6-supervise", "s6-setuidgid"),
            "supervisord": supervisord(exits),
        }
        measurements = [functools.partial(latency, *launcher) for launcher in launchers.items()]
        for _ in range(turns):
            rested = time.monotonic() + 0.6
            by_turns(SERVICES // 2, *measurements)
            time.sleep(max(0, rested - time.monotonic()))


def enumerate_applications(add, turns):
    floor = ctypes.CDLL(PROGRAMS + "floor.so")
    bus = Bus()

    def timed(series, count, work, *arguments):
        begin = time.monotonic_ns()
        work(*arguments)
        add(series, count, "ms", (time.monotonic_ns() - begin) / 1e6)

    for count in (10, 100, 1000):
        install(count)
        with serving(CHEAPEST, *DAEMON), serving(RECORDS + "Enumerate", PROGRAMS + "record-service"):
            if floor.EnumerateApplications() != count:
                raise RuntimeError("the floor failed")
            by_turns(turns * 100 // count,
                     lambda: add("kxcore", count, "ms", bus.elapsed(ENUMERATE) / 1e6),
                     lambda: add("answer", count, "ms", bus.elapsed(RECORDS + "Enumerate") / 1e6),
                     lambda: timed("floor", count, floor.EnumerateApplications),
                     lambda: timed("account look-ups", count, floor.LookUpAccounts,
                                   FIRST_ACCOUNT, FIRST_ACCOUNT, count))


def start_up(add, turns):
    def start(series, count, method, command):
        bus = Bus()
        bus.watch(method.split()[0])
        with Program(*command) as program:
            owned = bus.await_name()
            while not (call := bus.answers(method)):
                pass
        bus.close()
        add(series + ", name owned", count, "ms", (owned - program.executed) / 1e6)
        add(series + ", call answered", count, "ms", (call[1] - program.executed) / 1e6)

    for count in (0, 10, 100):
        install(count)
        by_turns(turns, lambda: start("kxcore", count, CHEAPEST, DAEMON),
                 lambda: start("bare QtDBus", count, QT_PING, QT_SERVICE))


def memory(add, calls):
    bus = Bus()

    def note(series, count, program):
        for name, key in (("written", "Private_Dirty"), ("resident", "Rss")):
            add(f"{series}, {name}", count, "kB", program.memory(key))

    of_core = ("kxcore", CHEAPEST, DAEMON)
    for count, (series, method, command) in ((0, ("bare QtDBus", QT_PING, QT_SERVICE)), (0, of_core),
                                             (100, of_core)):
        install(count)
        with serving(method, *command) as program:
            note(series + ", idle", count, program)
            for number in range(1, calls + 1 if count else 0):
                bus.call(ENUMERATE if number % 100 == 0 else CHEAPEST)
                if number in (calls // 2, calls):
                    note(f"kxcore, after {number} calls", count, program)


def idle(add, seconds):
    install(10)
    summary = pathlib.Path(SCRATCH + "strace")

    def sleeps():
        return sum(int(task["voluntary_ctxt_switches"]) for task in daemon.tasks())

    # strace wakes each thread when it begins.
    def is_traced_and_asleep():
        return all(task["TracerPid"] != "0" and task["State"][0] == "S" for task in daemon.tasks())

    with serving(CHEAPEST, *DAEMON) as daemon:
        with Program("strace", "-f", "-c", "-o", str(summary), "-p", str(daemon.pid)):
            wait_for(is_traced_and_asleep)
            before = sleeps()
            time.sleep(seconds)
            add("kxcore, wake-ups", 10, "", sleeps() - before)
    total = [line.split()[3] for line in summary.read_text().splitlines() if line.endswith("total")]
    add("kxcore, system calls", 10, "", sum(map(int, total)))


def termination(add, turns):
    floor = ctypes.CDLL(PROGRAMS + "floor.so")
    install(1)
    shutil.copy("/usr/bin/sleep", f"/home/{name_of(0)}/bin")
    bus, programs, pause = Bus(), 100, 250

    def daemon():
        for _ in range(programs):
            bus.start("sleep", "1000")
        elapsed = bus.elapsed(APPLICATIONS + "Terminate") / 1e6
        add("kxcore", programs, "ms", elapsed)
        add("kxcore beyond the pause", programs, "ms", elapsed - pause)

    def kernel():
        children = [os.posix_spawn("/usr/bin/sleep", ["sleep", "1000"], {}) for _ in range(programs)]
        array = (ctypes.c_int * programs)(*children)
        begin = time.monotonic_ns()
        floor.EndChildren(array, programs)
        add("kernel", programs, "ms", (time.monotonic_ns() - begin) / 1e6)

    with serving(CHEAPEST, *DAEMON):
        by_turns(turns, daemon, kernel)


def pieces(add, repetitions):
    done = subprocess.run([PROGRAMS + "pieces", "--benchmark_min_time=0.05", "--benchmark_format=json",
                           f"--benchmark_repetitions={repetitions}"], check=True, capture_output=True)
    for run in json.loads(done.stdout)["benchmarks"]:
        if run["run_type"] == "iteration":
            add(run["name"], "", "µs", run["cpu_time"] / 1e3)


def footprint(add, architecture):
    """Of an emulated program only the addresses count that the emulator gives to it."""
    first, end = {"armhf": (0x10000000000, 0x10100000000), "arm64": (0, 0x8000000000)}.get(
        architecture, (0, 1 << 64))
    if first:
        os.environ["QEMU_GUEST_BASE"] = hex(first)
    for name in ("kxcore", "kxctl", "kxregistry", "libqtplatform.so.1", "libveltradebug.so.2"):
        path, = (path for folder in ("*bin", "lib", "lib/*-linux-*")
                 for path in pathlib.Path("/usr").glob(f"{folder}/{name}"))
        add(name, architecture, "bytes", path.stat().st_size)
    with serving(CHEAPEST, *DAEMON) as program:
        add("daemon at rest: resident", architecture, "kB", program.memory("Rss", first, end))
        add("of that written", architecture, "kB", program.memory("Private_Dirty", first, end))
        add("its process, emulator included", architecture, "kB", program.memory("Rss"))


def machine(add, _):
    add("load", "", "", os.getloadavg()[0])


CASES = {  # the work, and how often, how long or with how many calls to do it, in full and quickly
    "machine": (machine, 0, 0),
    "round-trip": (round_trip, 1000, 150),
    "launch": (launch, 25, 5),
    "enumerate": (enumerate_applications, 150, 30),
    "start-up": (start_up, 60, 12),
    "memory": (memory, 20_000, 20_000),
    "idle": (idle, 20, 5),
    "termination": (termination, 15, 4),
    "pieces": (pieces, 15, 5),
}


def measure(work, amount):
    """Does a case and returns a line for each of its series."""
    figures = collections.defaultdict(list)
    shutil.rmtree(SCRATCH, ignore_errors=True)
    os.mkdir(SCRATCH)
    work(lambda *key_and_figure: figures[key_and_figure[:-1]].append(key_and_figure[-1]), amount)
    for key, values in figures.items():
        values.sort()
        low, high = (values[round(share * (len(values) - 1))] for share in (0.1, 0.9))
        yield [*key, len(values), *(f"{value:.6g}" for value in (low, statistics.median(values), high))]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--round", default=1)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--footprint", metavar="ARCHITECTURE")
    parser.add_argument("case", nargs="*", default=list(CASES))
    options = parser.parse_args()
    if not os.path.exists("/run/kx-private-root"):
        sys.exit("This is for scripts/bench, in the private root.")
    gc.disable()
    cases = {name: (CASES[name][0], CASES[name][2 if options.quick else 1]) for name in options.case}
    if options.footprint:
        cases = {"footprint": (footprint, options.footprint)}
    status, output = 0, csv.writer(sys.stdout, lineterminator="\n")
    for name, case in cases.items():
        try:
            output.writerows([options.round, name, *line] for line in list(measure(*case)))
        except Exception as failure:  # the other cases can be measured all the same
            print(f"bench: {name} could not be measured: {failure!r}", file=sys.stderr)
            status = 1
    sys.exit(status)


if __name__ == "__main__":
    main()
