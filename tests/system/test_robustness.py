# Surroundings that fail, and many programs that end: the daemon is well again afterwards.
import contextlib
import os
import resource
import signal

import pytest

from kx import SLEEP, call, content, install, natively, processes, put, remove, status, system, wait

IDLE, VARIABLES, HUB_ID = "/home/pay/bin/idle", "/etc/rc.d/rc.platform.conf", "/etc/platform/sys/hubID"
USB = {"mode": "serial", "usbForceFullspeed": "0", "dflt": "0", "usbuid": "0", "hubid": "hub"}
FAILED = {"errorCode": -1, "errorText": f"Failed to start {IDLE} 100 binary"}


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


@natively
def test_no_descriptors(shared):
    shared.log()
    used = len(os.listdir(f"/proc/{shared.pid}/fd"))
    limits = resource.prlimit(shared.pid, resource.RLIMIT_NOFILE)
    resource.prlimit(shared.pid, resource.RLIMIT_NOFILE, (used, limits[1]))
    assert start() == FAILED and call("Applications.Enumerate") == []
    assert call("Tools.SaveVariableValue", "ss", "NEW", "value") == -1
    resource.prlimit(shared.pid, resource.RLIMIT_NOFILE, limits)
    assert 'err StartProcess "Start: Error creating pipe (Too many open files)"' in shared.log()


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
    assert wait(lambda: not processes(parent=shared.pid))


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
