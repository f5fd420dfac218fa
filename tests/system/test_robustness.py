# Hostile and vanishing callers, and surroundings that fail: the daemon is well again afterwards.
import contextlib

import multiprocessing
import os
import random
import resource
import signal
import time

import pytest
from gi.repository import Gio, GLib

from kx import (SERVICE, SLEEP, call, content, install, natively, processes, put, remove, status, system,
                variant, wait)
from operation import HOSTILE

IDLE, VARIABLES, HUB_ID = "/home/pay/bin/idle", "/etc/rc.d/rc.platform.conf", "/etc/platform/sys/hubID"
USB = {"mode": "serial", "usbForceFullspeed": "0", "dflt": "0", "usbuid": "0", "hubid": "hub"}
FAILED = {"errorCode": -1, "errorText": f"Failed to start {IDLE} 100 binary"}
SECONDS, SEED = float(os.environ.get("KX_SECONDS", 2)), int(os.environ.get("KX_SEED", time.time_ns()))


def start(params="100"):
    return call("Applications.Start", "a{sv}", {"application": "pay", "binary": "idle", "params": params})


def well(daemon):
    # What must be the same afterwards: descriptors (with the log's), threads, children, answers.
    assert system(77) == {"return": -1}
    return (len(os.listdir(f"/proc/{daemon.pid}/fd")), status(daemon.pid)["Threads"],
            processes(parent=daemon.pid), call("Applications.Enumerate"))


def resident(daemon):
    return int(status(daemon.pid)["VmRSS"].split()[0])


@pytest.fixture(autouse=True)
def surroundings(shared):
    install("pay", 4002, "<home_button>html/a.html</home_button>", bin_idle=SLEEP)
    call("Applications.Enumerate")
    assert start("0") == {"errorCode": 0}
    wait(lambda: not processes(parent=shared.pid))
    before = well(shared)
    yield
    call("Applications.Terminate")
    wait(lambda: well(shared) == before)
    assert well(shared) == before


@contextlib.contextmanager
def full_disk():
    with open("/filler", "wb", buffering=0) as file, contextlib.suppress(OSError):
        while file.tell() < 200_000_000:
            file.write(b"x" * 4096)
    assert os.path.getsize("/filler") < 200_000_000, "this needs a small disk: scripts/sandbox --size 64m"
    yield
    remove("/filler")


def test_full_disk():
    put(VARIABLES, "#" * 4096)  # one more line needs another page
    with full_disk():
        assert call("Tools.SaveVariableValue", "ss", "NEW", "value") == -1
        assert system(96, USB) == {"return": 1} and system(102, {"number": "2"}) == {"return": -1}
        assert start() == {"errorCode": 0} and content(VARIABLES) == "#" * 4096
    assert call("Tools.SaveVariableValue", "ss", "NEW", "value") == 0
    assert system(96, USB) == {"return": 0} and content(HUB_ID) == "hub"


@contextlib.contextmanager
def limit(daemon, kind, number):
    before = resource.prlimit(daemon.pid, kind)
    resource.prlimit(daemon.pid, kind, (number, before[1]))
    yield
    resource.prlimit(daemon.pid, kind, before)


@natively
def test_no_descriptors(shared):
    shared.log()
    with limit(shared, resource.RLIMIT_NOFILE, len(os.listdir(f"/proc/{shared.pid}/fd"))):
        assert start() == FAILED and call("Applications.Enumerate") == []
        assert call("Tools.SaveVariableValue", "ss", "NEW", "value") == -1
    assert 'err StartProcess "Start: Error creating pipe (Too many open files)"' in shared.log()


@natively
def test_no_processes(shared):
    # The limit is one on the processes of the application's account: root has none.
    shared.log()
    with limit(shared, resource.RLIMIT_NPROC, 5):
        answers = [start() for _ in range(10)]
    assert answers[0] == {"errorCode": 0} and answers[-1] == FAILED
    record = 'err StartProcess "Start: Failed to execute child (Resource temporarily unavailable)"'
    assert record in shared.log()
    assert wait(lambda: len(processes(IDLE)) == answers.count({"errorCode": 0}))


@natively
def test_children_that_end_at_once(shared):
    # While the daemon stands still, their signals merge into one.
    for _ in range(50):
        start("1000")
    assert wait(lambda: len(processes(IDLE)) == 50)
    os.kill(shared.pid, signal.SIGSTOP)
    for pid in processes(IDLE):
        os.kill(pid, signal.SIGKILL)
    assert wait(lambda: not processes(IDLE)) and len(processes(parent=shared.pid)) == 50
    os.kill(shared.pid, signal.SIGCONT)
    assert wait(lambda: not processes(parent=shared.pid), 2)


@natively
def test_memory_does_not_grow(shared):
    def many():
        for _ in range(500):
            call("Applications.Enumerate")
        for _ in range(50):
            start("0")
    many()
    before = resident(shared)
    many()
    assert resident(shared) - before <= 512
    for megabytes in (2, 4, 6, 2):
        call("Applications.Start", "a{sv}", {"application": "x" * (megabytes << 20)})
    call("Applications.Enumerate")  # until then the bus library holds the last message
    assert resident(shared) - before <= 4 << 10


METHODS = [("Applications", "Enumerate", ""), ("Applications", "Start", "m"), ("System", "SystemCall", "im"),
           ("Tools", "SetTimeInfo", "sss"), ("Tools", "SaveVariableValue", "ss")]
KEYS = ["application", "binary", "params", "default", "mode", "dflt", "newconf", "url", "text", "number"]
TEXTS = ["pay", "idle", "../../../bin/sh", "\uffff", "Europe/../../../etc", "[[[*?\\", "enable", "2"]
VALUES = [*HOSTILE.values(), *TEXTS]


def message(chance):
    # A call with arguments of the right types, or of any.
    thing, member, kinds = chance.choice(METHODS)
    right = {"i": chance.randrange(95, 108), "s": chance.choice(TEXTS),
             "m": {chance.choice(KEYS): chance.choice(VALUES) for _ in range(5)}}
    body = [right[kind] for kind in kinds] if chance.random() < 0.7 else chance.choices(VALUES, k=3)
    call_ = Gio.DBusMessage.new_method_call(SERVICE, f"/{thing}", f"{SERVICE}.{thing}", member)
    call_.set_body(GLib.Variant.new_tuple(*map(variant, body)))
    return call_


def attack(seed, end):
    # Most callers wait for their answer, some do not, and some vanish before it.
    chance, connection = random.Random(seed), None
    address = Gio.dbus_address_get_for_bus_sync(Gio.BusType.SYSTEM)
    kind = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
    while time.monotonic() < end:
        connection = connection or Gio.DBusConnection.new_for_address_sync(address, kind)
        way = chance.random()
        if way < 0.7:
            connection.send_message_with_reply_sync(message(chance), 0, 25000)
            continue
        connection.send_message(message(chance), 0)
        if way > 0.9:
            connection.flush_sync()
            connection.close_sync()
            connection = None


def test_hostile_callers(shared):
    print(f"KX_SEED={SEED}")
    process, end = multiprocessing.get_context("spawn").Process, time.monotonic() + SECONDS
    right, before = call("Applications.Enumerate"), resident(shared)
    attackers = [process(target=attack, args=(SEED + number, end)) for number in range(4)]
    for attacker in attackers:
        attacker.start()
    while any(attacker.is_alive() for attacker in attackers):
        assert call("Applications.Enumerate", seconds=25) == right
    assert [attacker.exitcode for attacker in attackers] == [0] * 4
    assert resident(shared) - before < 64 << 10
