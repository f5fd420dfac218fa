# Programs of applications: who may start what, as whom, with what surroundings, and how all of them end.
import contextlib
import os
import re
import signal
import subprocess
import time

import pytest

from kx import (PATIENCE, SLEEP, call, content, install, natively, owner_and_mode, processes, put, remove,
                status, wait)

IDLE, STARTED = "/home/pay/bin/idle", {"errorCode": 0}
SHOW = "#!/bin/sh\nprintf '%s|' \"$0\" \"$@\" >$APP_TMP_DIR/shown\n"


def start(binary="idle", params="100", application="pay", **more):
    request = {"application": application, "binary": binary, "params": params} | more
    return call("Applications.Start", "a{sv}", request, seconds=2 * PATIENCE)


def started(*programs):
    return wait(lambda: [pid for program in programs for pid in processes(program)])


@pytest.fixture(autouse=True)
def applications(shared):
    remove("/tmp/pay", "/shared", "/var/run/sockets")
    install("pay", 4002, bin_idle=SLEEP, bin_plain="text", bin_broken="#!/none\n", bin_show=SHOW,
            bin_out="-> /bin/sh", bin_dangling="-> /none", bin2_idle=SLEEP)
    call("Applications.Enumerate")
    shared.log(), shared.events(0)
    yield
    call("Applications.Terminate", seconds=2 * PATIENCE)


NOT_THERE, NOT_IN_BIN = "Binary file {} for app {} doesn't exist", "Binary file {} isn't located in bin dir"
NOT_EXECUTABLE, FAILED = "Binary file {} is not executable", "Failed to start {} -x binary"
WRONG_OWNER = "Invalid owner of file /home/{}/bin. Must be application user"


@pytest.mark.parametrize("application, binary, text", [
    ("", "idle", "Application  doesn't exist"),
    ("Nope%1", "idle", "Application Nope%1 doesn't exist"),
    ("nobin", "idle", "Binary directory /home/nobin/bin doesn't exist"),
    ("pay", "none%2", NOT_THERE.format("/home/pay/bin/none%2", "pay")),
    ("pay", "dangling", NOT_THERE.format("/home/pay/bin/dangling", "pay")),
    ("linked", "none", NOT_THERE.format("/home/pay/bin/none", "linked")),
    ("pay", "../../../bin/sh", NOT_IN_BIN.format("/home/pay/bin/../../../bin")),
    ("pay", "out", NOT_IN_BIN.format("/home/pay/bin")),
    ("pay", "plain", NOT_EXECUTABLE.format("/home/pay/bin")),
    ("rooted", "idle", WRONG_OWNER.format("rooted")),
    ("rooted", "mixed", WRONG_OWNER.format("rooted")),
    ("pay", "", FAILED.format("/home/pay/bin")),
    ("pay", "broken", FAILED.format("/home/pay/bin/broken")),
    ("pay", "private", FAILED.format("/home/pay/bin/private")),
])
def test_refusals(shared, application, binary, text):
    install("nobin", 4005), install("linked", 4005, bin="-> /home/pay/bin")
    install("rooted", 0, bin_idle=SLEEP, bin_mixed=SLEEP)
    os.chown("/home/rooted/bin/mixed", 4002, 0)
    os.chmod("/home/pay/bin/plain", 0o655)
    put("/home/pay/bin/private", SLEEP, mode=0o700)
    call("Applications.Enumerate")
    assert start(binary, "-x", application) == {"errorCode": -1, "errorText": text}
    assert shared.log()[-1] == f'err StartApplicationBinary "{text}"'


@natively
@pytest.mark.parametrize("owner, group, binary, uid, gid", [
    (4002, 4002, "idle", 4002, 4002), (0, 0, "idle", 4002, 4002), (4003, 100, "idle", 4002, 4002),
    (4003, 4999, "idle", 4003, 4999), (4003, 4003, "sub/alias", 4003, 4003),
    (4003, 4003, "../bin2/idle", 4002, 4002)])
def test_identity(owner, group, binary, uid, gid):
    os.chown(IDLE, owner, group), os.chmod(IDLE, 0o755)
    put("/home/pay/bin/sub/alias", "-> ../idle")
    assert start(binary) == STARTED
    pid, = started(IDLE, "/home/pay/bin2/idle")
    seen = status(pid)
    assert seen["Uid"].split() == [str(uid)] * 4 and seen["Gid"].split() == [str(gid)] * 4
    assert set(map(int, seen["Groups"].split())) == {gid, *os.getgrouplist("pay", gid)}
    assert {seen[name] for name in ("CapInh", "CapPrm", "CapEff", "CapAmb")} == {"0" * 16}
    assert owner_and_mode("/tmp/pay") == f"{uid}:{gid} 770" and owner_and_mode("/shared") == "0:0 777"


@natively
def test_surroundings(shared):
    assert start(params="  100   200 ") == STARTED
    pid, = started(IDLE)
    proc = f"/proc/{pid}/"
    own, seen = (dict(entry.split("=", 1) for entry in content(f"/proc/{number}/environ").split("\0")[:-1])
                 for number in (shared.pid, pid))
    assert seen == own | {"APP_NAME": "pay", "APP_HOME_DIR": "/home/pay", "APP_TMP_DIR": "/tmp/pay",
                          "APP_SHARED_DIR": "/shared", "HOME": "/home/pay", "OLDPWD": "/home/pay",
                          "USER": "pay", "LOGNAME": "pay"}
    assert content(proc + "cmdline") == f"{IDLE}\0" "100\0" "200\0"
    assert os.readlink(proc + "cwd") == "/home/pay"
    assert sorted(os.listdir(proc + "fd")) == ["0", "1", "2"] and os.getpgid(pid) == pid
    assert {status(pid)[name] for name in ("SigBlk", "SigCgt")} == {"0" * 16}
    ignored = int(status(pid)["SigIgn"], 16)
    assert not any(ignored >> number - 1 & 1 for number in (
        signal.SIGTERM, signal.SIGINT, signal.SIGCHLD, signal.SIGALRM, signal.SIGHUP))


@pytest.mark.parametrize("params, seen", [
    ("", ""), (" -a  'b\tc ", "-a|'b\tc|"), ("\xe4 \u20ac%1", "\udce4|?%1|")])
def test_parameters(params, seen):
    assert start("show", params) == STARTED
    assert wait(lambda: content("/tmp/pay/shown")) == f"/home/pay/bin/show|{seen}"


def test_directories_are_prepared_once_in_a_row():
    def prepares(application):
        remove("/tmp/pay")
        assert start("idle", "0", application) == STARTED
        return os.path.exists("/tmp/pay")
    install("shop", 4003, bin_idle=SLEEP)
    call("Applications.Enumerate")
    names = "pay", "pay", "shop", "pay", "pay"
    assert [prepares(name) for name in names] == [True, False, False, True, False]
    call("Applications.Terminate")
    assert prepares("pay")


@natively
def test_order_of_steps(shared):
    steps = "chdir,setgroups,prctl,setgid,setresgid,setuid,setresuid,setpgid,chdir,execve"
    with shared.failing(steps, "delay_exit=1"):
        assert start() == STARTED
    assert re.findall(r"^\d+ +(\w+)\(", content("/tmp/strace"), re.M) == steps.split(",")


FATAL = "function  {}  errno  1   Operation not permitted  failed. Fatal error - exit"
PROCESS, CHILD = '"Start: Failed to execute process ({}) {}"', '"Start: Failed to execute child ({})"'


@natively
@pytest.mark.parametrize("syscall, how, result, runs, log", [
    ("pipe,pipe2", "error=EMFILE", -1, False, ['"Start: Error creating pipe (Too many open files)"']),
    ("fork,vfork,clone,clone3", "error=EAGAIN", -1, False,
     ['"Start: Failed to fork (Resource temporarily unavailable)"']),
    ("fcntl", "error=EIO:when=1", -1, False,
     ["Failed to start application, fcntl errno= 5   Input/output error"]),
    ("read", "error=EIO", -1, False, ['"Start: Error reading from pipe (Input/output error)"']),
    ("ppoll", "retval=0", -1, False, ['"Start: Error reading from pipe (Connection timed out)"']),
    ("execve", "error=EACCES", -1, False,
     [CHILD.format("Permission denied"), PROCESS.format("Permission denied", 13)]),
    ("setgroups", "error=EPERM", 0, True,
     ['"Start: initgroups() call failed (Operation not permitted)"']),
    ("chdir", "error=ENOENT:when=2", 0, True,
     ["function  chdir ( config.m_homeDir.toUtf8().data() )  errno  2   No such file or directory"]),
    ("chdir", "error=EPERM:when=1", 0, False, [FATAL.format("chdir( config.m_homeDir.toLatin1().data() )")]),
    ("prctl", "error=EPERM", 0, False, [FATAL.format("prctl( PR_SET_KEEPCAPS, 0L, 0L, 0L, 0L )")]),
    ("setgid", "error=EPERM", 0, False, [FATAL.format("setgid( config.m_gid )")]),
    ("setresgid", "error=EPERM", 0, False, [FATAL.format("setegid( config.m_gid )")]),
    ("setuid", "error=EPERM", 0, False, [FATAL.format("setuid( config.m_uid )")]),
    ("setresuid", "error=EPERM", 0, False, [FATAL.format("seteuid ( config.m_uid )")]),
    ("setpgid", "error=EPERM", 0, False, [FATAL.format("setpgid ( 0, 0 )")]),
])
def test_steps_that_fail(shared, syscall, how, result, runs, log):
    # Until the program is executed, a failure of the child shows in the log only.
    start("none")  # the directories are prepared, and the log is open
    shared.log()
    with shared.failing(syscall, how):
        assert start()["errorCode"] == result
        assert wait(lambda: processes(IDLE) if runs else not processes(parent=shared.pid))
    records = [record for record in shared.log() if " StartProcess " in record]
    assert sorted(records) == ["err StartProcess " + text for text in log]


@pytest.mark.parametrize("obstacle, text, owner, log", [
    ("/tmp/pay", "-> /etc", 4002, ["CreateDirIfNeeded Failed to create dir =  20", "tmp"]),
    ("/tmp/pay", "file", 0, ["tmp"]), ("/shared", "file", 0, ["shared"])])
def test_directories_that_cannot_be_prepared(shared, obstacle, text, owner, log):
    put(obstacle, text, owner)
    assert start()["errorCode"] == -1 and owner_and_mode("/etc") == "0:0 755"
    assert shared.log()[:-1] == [f"err {log[0]}"] * (len(log) - 1) + [
        f"err PrepareEnviornment Failed to create {log[-1]} dir"]


@contextlib.contextmanager
def stray(uid, gid, stubborn=False):
    # A process of any identity that is not the daemon's child.
    process = subprocess.Popen(["setpriv", f"--reuid={uid}", f"--regid={gid}", "--clear-groups", "env",
                                f"--{'ignore' if stubborn else 'default'}-signal=TERM", "sleep", "1000"])
    wait(lambda: content(f"/proc/{process.pid}/cmdline").startswith("sleep"))
    yield process
    process.kill()
    process.wait()


@pytest.mark.parametrize("uid, gid, stubborn, ended", [
    (4000, 4000, False, -15), (4999, 4999, False, -15), (4001, 4002, True, -9),
    (4001, 3999, False, None), (3999, 4000, False, None), (5000, 4000, False, None),
    (4000, 5000, False, None)])
def test_terminate_ends_applications_only(shared, uid, gid, stubborn, ended):
    # The end of the child that obeys does not shorten the pause that the others have.
    assert start() == STARTED and started(IDLE)
    with stray(uid, gid, stubborn) as other:
        began = time.monotonic()
        call("Applications.Terminate")
        assert time.monotonic() - began >= 0.25 and shared.events(1) == ["OnTerminate"]
        assert wait(other.poll) == ended if ended else other.poll() is None
    assert not processes(parent=shared.pid) and shared.log() == []


@natively
def test_process_that_is_gone(shared):
    assert start() == STARTED
    pid, = started(IDLE)
    with shared.failing("kill", "error=ESRCH:when=1"):
        call("Applications.Terminate")
    text = f"TerminateProcess: kill() call failed for PID={pid} (No such process)"
    assert shared.log() == [f'info TerminateProcess "{text}"']


def test_child_that_is_no_application_is_waited_for(shared):
    install("service", 4005, "<run_on_boot>bin/idle 1</run_on_boot>", group=100, bin_idle=SLEEP)
    assert call("Applications.Start", "a{sv}", {}) == {"return": True}
    pid, = started("/home/service/bin/idle")
    call("Applications.Terminate")
    assert not os.path.exists(f"/proc/{pid}") and shared.log() == []


@pytest.mark.parametrize("script, count", [
    ("trap '' TERM INT HUP; sleep 900 & exec sleep 900", 2),
    ("for i in 1 2 3 4; do sleep 900 & done; wait", 4),
    ("setsid sh -c 'sleep 900 & sleep 900 &'; exec sleep 900", 3), ("sleep 900 & kill -STOP $$", 1)])
def test_unruly_programs_end(shared, script, count):
    put("/home/pay/bin/unruly", f"#!/bin/sh\n{script}\n", 4002, mode=0o755)
    assert start("unruly") == STARTED and wait(lambda: len(processes("sleep")) == count)
    call("Applications.Terminate")
    assert not processes(parent=shared.pid) and wait(lambda: not processes("sleep"))


HYDRA = """#!/usr/bin/python3
import ctypes, os, signal, sys
def another(*_):
    if ctypes.CDLL(None).syscall(56, 0x8000 | signal.SIGCHLD, 0, 0, 0, 0):  # clone, CLONE_PARENT
        os._exit(0)
signal.signal(signal.SIGTERM, another)
while True:
    another() if sys.argv[1] == "restless" else signal.pause()
"""


@pytest.mark.parametrize("how", ["asked", "restless"])
def test_late_children_end_as_well(shared, how):
    put("/home/pay/bin/hydra", HYDRA, 4002, mode=0o755)
    assert start("hydra", how) == STARTED and started("/usr/bin/python3")
    call("Applications.Terminate", seconds=2 * PATIENCE)
    assert not processes(parent=shared.pid)
