# Surroundings that fail, and many programs that end: the daemon is well again afterwards.
import contextlib
import os
import resource
import signal

import pytest

from kx import SLEEP, call, content, install, natively, processes, put, remove, start, status, system, wait

VARIABLES, STARTED = "/etc/rc.d/rc.platform.conf", {"errorCode": 0}


# What must be the same afterwards.
def state(daemon):
    assert system(77) == {"return": -1}  # after which the log is open
    return daemon.vitals(), call("Applications.Enumerate")


def resident(daemon):
    return int(status(daemon.pid)["VmRSS"].split()[0])


@pytest.fixture(autouse=True)
def surroundings(shared):
    install("pay", 4002, "<home_button>html/a.html</home_button>", bin_idle=SLEEP)
    call("Applications.Enumerate")
    assert start(params="0") == STARTED
    wait(lambda: not processes(parent=shared.pid))
    before = state(shared)
    yield
    call("Applications.Terminate")
    assert wait(lambda: state(shared) == before)


def test_full_disk():
    put(VARIABLES, "#" * 4096)  # one more line needs another page
    with open("/filler", "wb", buffering=0) as file, contextlib.suppress(OSError):
        while file.tell() < 200_000_000:
            file.write(b"x" * 4096)
    assert os.path.getsize("/filler") < 200_000_000, "this needs a small disk: scripts/sandbox --size 64m"
    assert call("Tools.SaveVariableValue", "ss", "NEW", "value") == -1 and content(VARIABLES) == "#" * 4096
    assert start() == STARTED
    remove("/filler")
    assert call("Tools.SaveVariableValue", "ss", "NEW", "value") == 0


@natively
def test_no_descriptors(shared):
    kind, before = resource.RLIMIT_NOFILE, resource.prlimit(shared.pid, resource.RLIMIT_NOFILE)
    resource.prlimit(shared.pid, kind, (len(os.listdir(f"/proc/{shared.pid}/fd")), before[1]))
    assert start()["errorCode"] == -1 and call("Applications.Enumerate") == []
    assert call("Tools.SaveVariableValue", "ss", "NEW", "value") == -1
    resource.prlimit(shared.pid, kind, before)


# While the daemon stands still, the signals of its children merge into one.
@natively
def test_children_that_end_at_once(shared):
    for _ in range(50):
        start(params="1000")
    assert wait(lambda: len(processes("/home/pay/bin/idle")) == 50)
    os.kill(shared.pid, signal.SIGSTOP)
    for pid in processes("/home/pay/bin/idle"):
        os.kill(pid, signal.SIGKILL)
    assert wait(lambda: not processes("/home/pay/bin/idle")) and len(processes(parent=shared.pid)) == 50
    os.kill(shared.pid, signal.SIGCONT)
    assert wait(lambda: not processes(parent=shared.pid), 2)


@natively
def test_memory_does_not_grow(shared):
    for _ in range(2):
        before = resident(shared)
        for _ in range(500):
            call("Applications.Enumerate")
        for _ in range(50):
            start(params="0")
    assert resident(shared) - before <= 512
    for megabytes in (2, 4, 6, 2):
        call("Applications.Start", "a{sv}", {"application": "x" * (megabytes << 20)})
    call("Applications.Enumerate")  # until then the bus library holds the last message
    assert resident(shared) - before <= 4 << 10
