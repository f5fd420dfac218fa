# Programs of applications: who may start what, as whom, with what surroundings, and how all of them end.
import os
import re
import subprocess
import time

import pytest

from kx import (PATIENCE, SLEEP, call, content, install, natively, owner_and_mode, processes, put, remove,
                rows, start, status, wait)

IDLE, STARTED = "/home/pay/bin/idle", {"errorCode": 0}
SHOW = "#!/bin/sh\nprintf '%s|' \"$0\" \"$@\" >$APP_TMP_DIR/shown\n"
# A program that goes on as another process when it is asked to end. A file tells that it is ready.
HYDRA = """#!/usr/bin/python3
import ctypes, os, signal
def be_another(*_):
    signal.signal(signal.SIGTERM, signal.SIG_DFL)
    ctypes.CDLL(None).syscall(56, 0x8000 | signal.SIGCHLD, 0, 0, 0, 0) and os._exit(0)  # clone, CLONE_PARENT
signal.signal(signal.SIGTERM, be_another)
open(os.environ["APP_TMP_DIR"] + "/ready", "w")
while True: signal.pause()
"""


def started(program=IDLE):
    return wait(lambda: processes(program))


@pytest.fixture(autouse=True)
def applications(shared):
    remove("/tmp/pay", "/shared", "/var/run/sockets")
    install("shop", 4003, bin_idle=SLEEP), install("rooted", 0)
    install("nobin", 4005), install("linked", 4005, bin="-> /home/pay/bin")
    install("pay", 4002, bin_idle=SLEEP, bin_show=SHOW, bin_out="-> /bin/sh", bin_dangling="-> /none",
            bin_hydra=HYDRA, bin2_idle=SLEEP)
    call("Applications.Enumerate")
    shared.log(), shared.events(0)
    yield
    call("Applications.Terminate", seconds=2 * PATIENCE)


@pytest.mark.parametrize("application, binary, text", rows("""
    Nope%1 | idle            | Application Nope%1 doesn't exist
    nobin  | idle            | Binary directory /home/nobin/bin doesn't exist
    pay    | dangling        | Binary file /home/pay/bin/dangling for app pay doesn't exist
    linked | none%2          | Binary file /home/pay/bin/none%2 for app linked doesn't exist
    pay    | ../../../bin/sh | Binary file /home/pay/bin/../../../bin isn't located in bin dir
    pay    | out             | Binary file /home/pay/bin isn't located in bin dir
    pay    | plain           | Binary file /home/pay/bin is not executable
    rooted | mixed           | Invalid owner of file /home/rooted/bin. Must be application user
    pay    |                 | Failed to start /home/pay/bin -x binary
    pay    | private         | Failed to start /home/pay/bin/private -x binary
"""))
def test_refusals(shared, application, binary, text):
    put("/home/rooted/bin/mixed", SLEEP, 4002, 0, 0o755), put("/home/pay/bin/plain", mode=0o655)
    put("/home/pay/bin/private", SLEEP, mode=0o700)
    assert start(binary, "-x", application) == {"errorCode": -1, "errorText": text}
    assert shared.log()[-1] == f'err StartApplicationBinary "{text}"'


@natively
@pytest.mark.parametrize("owner, group, binary, uid, gid", [
    (0, 0, "idle", 4002, 4002), (4003, 100, "idle", 4002, 4002), (4003, 4999, "sub/alias", 4003, 4999),
    (4003, 4003, "../bin2/idle", 4002, 4002)])
def test_identity(owner, group, binary, uid, gid):
    os.chown(IDLE, owner, group), os.chmod(IDLE, 0o755)
    put("/home/pay/bin/sub/alias", "-> ../idle")
    assert start(binary) == STARTED
    seen = status(*started("/home/pay/bin2/idle" if "bin2" in binary else IDLE))
    assert set(seen["Uid"].split()) == {str(uid)} and set(seen["Gid"].split()) == {str(gid)}
    assert set(map(int, seen["Groups"].split())) == {gid, *os.getgrouplist("pay", gid)}
    assert {seen[name] for name in ("CapInh", "CapPrm", "CapEff", "CapAmb")} == {"0" * 16}
    assert owner_and_mode("/tmp/pay") == f"{uid}:{gid} 770" and owner_and_mode("/shared") == "0:0 777"


@natively
def test_steps_and_surroundings(shared):
    steps = "chdir,setgroups,prctl,setgid,setresgid,setuid,setresuid,setpgid,chdir,execve"
    put(program := "/home/pay/bin/idl\xe9", SLEEP, mode=0o755)
    with shared.failing(steps, "delay_exit=1"):
        assert start("idl\xe9") == STARTED
    assert re.findall(r"^\d+ +(\w+)\(", content("/tmp/strace"), re.M) == steps.split(",")
    pid, = started(program)
    own, seen = (content(f"/proc/{number}/environ").split("\0")[:-1] for number in (shared.pid, pid))
    variables = dict(entry.split("=", 1) for entry in own) | {
        "APP_NAME": "pay", "APP_HOME_DIR": "/home/pay", "APP_TMP_DIR": "/tmp/pay", "HOME": "/home/pay",
        "APP_SHARED_DIR": "/shared", "OLDPWD": "/home/pay", "USER": "pay", "LOGNAME": "pay"}
    assert sorted(seen) == sorted("=".join(entry) for entry in variables.items())  # none twice
    assert os.readlink(f"/proc/{pid}/cwd") == "/home/pay" and os.getpgid(pid) == pid
    assert sorted(os.listdir(f"/proc/{pid}/fd")) == ["0", "1", "2"]
    assert [status(pid)[name] for name in ("SigBlk", "SigCgt", "SigIgn")] == [
        "0" * 16, "0" * 16, status(shared.pid)["SigIgn"]]


def test_parameters():
    assert start("show", " -a  'b\tc  \xe4 \u20ac%1 ") == STARTED
    assert wait(lambda: content("/tmp/pay/shown")) == "/home/pay/bin/show|-a|'b\tc|\udce4|?%1|"


def test_directories_are_prepared_once_in_a_row():
    for application, prepared in ("pay", True), ("pay", False), ("shop", False), ("pay", True):
        remove("/tmp/pay")
        assert start("idle", "0", application) == STARTED and os.path.exists("/tmp/pay") == prepared


FATAL = "function  {}  errno  1   Operation not permitted  failed. Fatal error - exit"


# Until the program is executed, a failure of the child shows in the log only. Some end it.
@natively
@pytest.mark.parametrize("syscall, how, outcome, record", rows("""
    pipe,pipe2 | error=EMFILE | refused | "Start: Error creating pipe (Too many open files)"
    fork,vfork,clone,clone3 | error=EIO | refused | "Start: Failed to fork (Input/output error)"
    fcntl | error=EIO:when=1 | refused | Failed to start application, fcntl errno= 5   Input/output error
    read | error=EIO | refused | "Start: Error reading from pipe (Input/output error)"
    poll | retval=0:when=1 | refused | "Start: Error reading from pipe (Connection timed out)"
    execve,close | error=EIO | refused | function  close( fd[ 1 ] )  errno  5   Input/output error
    execve | error=EACCES | refused | "Start: Failed to execute process (Permission denied) 13"
    setgroups | error=EPERM | runs | "Start: initgroups() call failed (Operation not permitted)"
    chdir | error=EIO:when=2 | runs | \
        function  chdir ( config.m_homeDir.toUtf8().data() )  errno  5   Input/output error
    chdir | error=EPERM:when=1 | ends | chdir( config.m_homeDir.toLatin1().data() )
    prctl | error=EPERM | ends | prctl( PR_SET_KEEPCAPS, 0L, 0L, 0L, 0L )
    setgid | error=EPERM | ends | setgid( config.m_gid )
    setresgid | error=EPERM | ends | setegid( config.m_gid )
    setuid | error=EPERM | ends | setuid( config.m_uid )
    setresuid | error=EPERM | ends | seteuid ( config.m_uid )
    setpgid | error=EPERM | ends | setpgid ( 0, 0 )
"""))
def test_steps_that_fail(shared, syscall, how, outcome, record):
    start("none"), shared.log()  # the directories are prepared, and the log is open
    with shared.failing(syscall, how):
        assert start()["errorCode"] == -(outcome == "refused")
        assert wait(lambda: processes(IDLE) if outcome == "runs" else not processes(parent=shared.pid))
    assert "err StartProcess " + (FATAL.format(record) if outcome == "ends" else record) in shared.log()


@pytest.mark.parametrize("path, obstacle, name", [("/tmp/pay", "-> /etc", "tmp"), ("/shared", "", "shared")])
def test_directories_that_cannot_be_prepared(shared, path, obstacle, name):
    put(path, obstacle, 4002)
    assert start()["errorCode"] == -1 and owner_and_mode("/etc") == "0:0 755"
    assert shared.log()[-2] == f"err PrepareEnviornment Failed to create {name} dir"


# A process that is not the daemon's child.
def stray(uid, gid, sigterm="default"):
    process = subprocess.Popen(["setpriv", f"--reuid={uid}", f"--regid={gid}", "--clear-groups", "env",
                                f"--{sigterm}-signal=TERM", "sleep", "1000"])
    wait(lambda: content(f"/proc/{process.pid}/cmdline").startswith("sleep"))
    return process


# The end of the child that obeys does not shorten the pause that the others have.
def test_terminate_ends_applications_only(shared):
    assert start() == STARTED and started()
    strays = {stray(4000, 4000): -15, stray(4999, 4999): -15, stray(4001, 4002, "ignore"): -9} | {
        stray(*identity): None for identity in ((4001, 3999), (3999, 4000), (5000, 4000), (4000, 5000))}
    began = time.monotonic()
    call("Applications.Terminate")
    assert time.monotonic() - began >= 0.25 and shared.events(1) == ["OnTerminate"]
    assert not processes(parent=shared.pid) and shared.log() == []
    assert wait(lambda: [process.poll() for process in strays] == [*strays.values()])
    for process in strays:
        process.kill(), process.wait()


@natively
def test_process_that_is_gone_and_none_without_a_pause(shared):
    assert start() == STARTED
    pid, = started()
    with shared.failing("kill", "error=ESRCH:when=1"):
        call("Applications.Terminate")
    assert shared.log() == [
        f'info TerminateProcess "TerminateProcess: kill() call failed for PID={pid} (No such process)"']
    with shared.failing("kill,clock_nanosleep", "error=EINVAL"):
        call("Applications.Terminate")
    assert content("/tmp/strace") == ""


# One of them is no application's, one becomes another process.
def test_terminate_waits_for_all_children(shared):
    install("service", 4005, "<run_on_boot>bin/idle 1</run_on_boot>", group=100, bin_idle=SLEEP)
    call("Applications.Start", "a{sv}", {})
    assert started("/home/service/bin/idle") and start("hydra") == STARTED
    assert wait(lambda: os.path.exists("/tmp/pay/ready"))
    call("Applications.Terminate", seconds=2 * PATIENCE)
    assert not processes(parent=shared.pid)
