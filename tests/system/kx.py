# The daemon, the bus and the terminal around it, for the tests; in the private root only (scripts/sandbox).
import contextlib
import os
import pathlib
import re
import shutil
import signal
import subprocess
import syslog
import time

import pytest
from gi.repository import Gio, GLib

if not os.path.exists("/run/kx-private-root"):
    raise SystemExit("this kills processes and changes the system: run it with scripts/sandbox")

SERVICE, PROGRAM, BUS = "com.veltrasys.kx.core", "/usr/sbin/kxcore", "org.freedesktop.DBus"
ANSWERS, LOG, REPORTS = "/run/standins/", "/var/log/messages", "/run/reports/"
PATIENCE = 10 * float(os.environ.get("KX_TIME_FACTOR", 1))
SLEEP = pathlib.Path("/usr/bin/sleep").read_bytes()
UNDER = os.environ.get("KX_UNDER", "")  # what the daemon runs under: valgrind, sanitizer, emulator
# For cases that make system calls fail with strace, or look at the daemon's process.
natively = pytest.mark.skipif(UNDER != "", reason=f"tells nothing about a daemon under {UNDER}")
for sanitizer in "ASAN", "UBSAN", "TSAN":
    options = os.environ.get(f"{sanitizer}_OPTIONS", "")
    os.environ[f"{sanitizer}_OPTIONS"] = f"{options}:log_path={REPORTS}{sanitizer}"
bus = Gio.bus_get_sync(Gio.BusType.SYSTEM)
bus.set_exit_on_close(False)


# Runs the event loop until the condition holds; returns what it gave last.
def wait(condition, seconds=PATIENCE):
    end = time.monotonic() + seconds
    while not (value := condition()) and time.monotonic() < end:
        GLib.MainContext.default().iteration(False) or time.sleep(0.005)
    return value


# Rows of a table, whose columns are divided by bars.
def rows(text):
    return [re.split(r" *\| *", line.strip()) for line in text.strip().splitlines()]


# --- files: a path and bytes or text; None for nothing there, "-> target" for a link, "/" for a directory

def remove(*paths):
    for path in paths:
        is_tree = os.path.isdir(path) and not os.path.islink(path)
        shutil.rmtree(path) if is_tree else pathlib.Path(path).unlink(True)


def put(path, content="", owner=0, group=None, mode=None):
    remove(path)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    if content is None:
        return
    if isinstance(content, str) and content.startswith("-> "):
        os.symlink(content[3:], path)
    elif content == "/":
        os.mkdir(path)
    else:
        pathlib.Path(path).write_bytes(content if isinstance(content, bytes) else content.encode())
    os.lchown(path, owner, owner if group is None else group)
    if mode is not None and not os.path.islink(path):
        os.chmod(path, mode)


def content(path):
    if os.path.islink(path):
        return "-> " + os.readlink(path)
    return pathlib.Path(path).read_text(errors="surrogateescape") if os.path.isfile(path) else None


def owner_and_mode(path):
    info = os.lstat(path)
    return f"{info.st_uid}:{info.st_gid} {info.st_mode & 0o7777:o}"


# An application: the elements of its app.conf, and files: bin_idle=... (a program), html_index=...
def install(name, owner, conf=None, group=None, **files):
    home = f"/home/{name}"
    remove(home)
    os.makedirs(home)
    if conf is not None:
        put(home + "/app.conf", f"<application>{conf}</application>")
    for path, text in files.items():
        put(f"{home}/{path.replace('_', '/', 1)}", text, mode=0o755)
    subprocess.run(["chown", "-hR", f"{owner}:{owner if group is None else group}", home], check=True)
    return home


# --- the platform's programs, and others

called = []  # of the platform's programs, by this test
read = 0  # so much of their calls


# What they were called with since the last time; so many at least unless they do not come.
def calls(count=0):
    mark = len(called)

    def more():
        global read
        with open(ANSWERS + "calls") as file:
            file.seek(read)
            called.extend(file.read().splitlines())
            read = file.tell()
        return len(called) - mark >= count
    wait(more)
    return called[mark:]


# Their outputs and statuses, for certain arguments:
# answer(lsmod="u_ether 1", modprobe=4, pidof={"sredd2": 0})
def answer(**answers):
    remove(*(ANSWERS + name for name in os.listdir(ANSWERS) if name != "calls"))
    for name, given in answers.items():
        name = name.replace("_", "-") if name[0].isdigit() else name
        for key, value in (given if isinstance(given, dict) else {None: given}).items():
            path = f"{ANSWERS}{name}" if key is None else f"{ANSWERS}{name}.d/{key.replace(' ', '_')}"
            put(f"{path}.status" if isinstance(value, int) else path + ("" if key else ".out"), str(value))


def processes(program=None, parent=None):
    found = []
    for entry in filter(str.isdigit, os.listdir("/proc")):
        with contextlib.suppress(OSError):
            command = pathlib.Path(f"/proc/{entry}/cmdline").read_bytes().split(b"\0")[0].decode()
            if program in (None, command) and parent in (None, int(status(entry)["PPid"])):
                found.append(int(entry))
    return found


def status(pid):
    return dict(re.findall(r"^(\w+):\s*(.*)$", pathlib.Path(f"/proc/{pid}/status").read_text(), re.M))


# Runs a program to its end: (status, output, errors).
def run(*command, account=None):
    if account:
        command = ("setpriv", "--reuid", account, "--regid", account, "--init-groups") + command
    done = subprocess.run(command, capture_output=True, text=True, timeout=2 * PATIENCE,
                          stdin=subprocess.DEVNULL)
    return done.returncode, done.stdout, done.stderr


# --- the daemon

def variant(value):
    if isinstance(value, GLib.Variant):
        return value
    if isinstance(value, dict):
        return GLib.Variant("a{sv}", {key: variant(item) for key, item in value.items()})
    kinds = {bool: "b", int: "i", float: "d", str: "s", list: "as", bytes: "ay"}
    return GLib.Variant(kinds[type(value)], value)


# What is answered, plain; maps become maps of variants: call("System.SystemCall", "ia{sv}", 1, {})
def call(target, signature="", *arguments, seconds=PATIENCE, service=SERVICE, interface=None):
    thing, member = target.rsplit(".", 1)
    values = tuple({key: variant(v) for key, v in a.items()} if isinstance(a, dict) else a for a in arguments)
    reply = bus.call_sync(service, "/" + thing, interface or f"{SERVICE}.{thing}", member,
                          GLib.Variant(f"({signature})", values), None, 0, int(seconds * 1000), None)
    return (reply.unpack() or (None,))[0]


def start(binary="idle", params="100", application="pay"):
    request = {"application": application, "binary": binary, "params": params}
    return call("Applications.Start", "a{sv}", request, seconds=2 * PATIENCE)


def call_bus(method, signature="", *arguments):
    return call("." + method, signature, *arguments, service=BUS, interface=BUS)


def system(number, arguments=None):
    return call("System.SystemCall", "ia{sv}", number, arguments or {})


# The daemon's in the text of a log, each "priority function text".
def records(text):
    form = r"^\S+ +\S+ \S+ \S+ \w+\.(\w+) kxcore\S*: (?:platform/kx-core(?: [^ :]*:([^:]*):\d+)?: *)?(.*)$"
    return [" ".join(filter(None, found)).strip() for found in re.findall(form, text, re.M)]


class Daemon:
    def __init__(self, *arguments, under=(), env=None):
        self.mark, self.signals = os.path.getsize(LOG), []
        self.process = subprocess.Popen(
            [*under, PROGRAM, *(arguments or ["--no-daemon"])], cwd="/", text=True, stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, env=env and {**os.environ, **env})
        self.pid = self.process.pid
        self.subscription = bus.signal_subscribe(
            SERVICE, None, None, None, None, 0,
            lambda *signal: self.signals.append((signal[4], signal[5].unpack())))

    # Whether one has started: its last object serves a method; the bus library introspects earlier.
    @staticmethod
    def answers():
        with contextlib.suppress(GLib.Error):
            return call("Tools.IsAudiopaydEnabled") is not None

    def serving(self):
        wait(lambda: self.process.poll() is not None or self.answers())
        assert self.process.poll() is None, "the daemon has ended"
        self.events(0)
        return self

    # Its exit status.
    def end(self, signo=signal.SIGTERM):
        self.process.send_signal(signo)  # does nothing when it has ended
        bus.signal_unsubscribe(self.subscription)
        try:
            return self.process.wait(2 * PATIENCE)
        except subprocess.TimeoutExpired:
            for pid in processes(PROGRAM):
                os.kill(pid, signal.SIGKILL)
            raise

    # What must not grow: descriptors, threads, children.
    def vitals(self):
        kept = [len(os.listdir(f"/proc/{self.pid}/{kind}")) for kind in ("fd", "task")]
        return kept, processes(parent=self.pid)

    # The records since the last time. A mark of our own tells that all are there.
    def log(self):
        syslog.syslog(mark := f"mark {time.monotonic_ns()}")
        text = bytearray()
        with open(LOG, "rb") as file:
            file.seek(self.mark)
            wait(lambda: text.extend(file.read()) or mark.encode() in text)
            self.mark = file.tell()
        return records(text.decode(errors="replace"))

    # The signals since the last time, (name, arguments) each; so many at least unless they do not come.
    def heard(self, count):
        wait(lambda: not GLib.MainContext.default().pending() and len(self.signals) >= count)
        found, self.signals[:] = self.signals[:], []
        return found

    def events(self, count):
        return [name for name, _ in self.heard(count)]

    # Meanwhile a system call of the daemon and its children does no work: "error=EPERM", "retval=0".
    @contextlib.contextmanager
    def failing(self, call, how, calls="/tmp/strace"):
        tracer = subprocess.Popen([*failing(call, how, calls), "-p", str(self.pid)])
        try:
            assert wait(lambda: status(self.pid)["TracerPid"] != "0")
            yield
        finally:
            tracer.send_signal(signal.SIGINT)
            tracer.wait()


# The same for a daemon from its start: Daemon(under=failing("clone", "error=EAGAIN"))
def failing(call, how, calls="/dev/null"):
    return "strace", "-qq", "-f", "-o", calls, "-e", f"trace={call}", "-e", f"inject={call}:{how}"
