"""The bus dies under the daemon: the terminal reboots, unless software is being installed."""
import fcntl
import os
import signal
import struct
import subprocess
import time

import pytest

from kx import LOG, SERVICE, calls, content, owner_and_mode, processes, put, remove, run, wait

RPM, INSTALLER = "/var/lib/rpm/.rpm.lock", "/var/lib/installer/database/.rpm.lock"
UPDATE, RECORD, ADDRESS = "/var/lib/installer/.update_started", "/tmp/wtmp", "unix:path=/tmp/bus"
PICTURE = "fbv -f -r /etc/platform/sys/maintenance.png"
DIED = "emerg DBusDied Seems that dbus-daemon died."
REBOOT = "emerg DBusDied Updater is not running => The unit must be restarted"
SPARED = "emerg DBusDied Updater is running => Avoid reboot"


@pytest.fixture
def lost(own):
    """Starts a daemon on a bus of its own, and kills that bus; returns the daemon."""
    remove(RPM, INSTALLER, UPDATE, RECORD, "/tmp/bus")

    def lose():
        bus = subprocess.Popen(["dbus-daemon", "--config-file=/etc/dbus-1/system.conf", "--nofork", "--nopidfile",
                                "--address=" + ADDRESS])
        assert wait(lambda: os.path.exists("/tmp/bus"))
        daemon = own(env={"DBUS_SYSTEM_BUS_ADDRESS": ADDRESS})
        assert wait(lambda: run("busctl", "--address=" + ADDRESS, "introspect", SERVICE, "/Tools")[0] == 0)
        bus.kill(), bus.wait()
        assert wait(lambda: "=> " in content(LOG)[daemon.mark:])
        return daemon
    yield lose
    for pid in processes("sleep"):  # what has not rebooted yet shall not
        os.kill(pid, signal.SIGKILL)
    remove(RPM, INSTALLER, UPDATE, RECORD)


def lock(path):
    """Takes the lock of a file and returns the open file; False when the daemon holds it."""
    put(path, content(path) or "") if not os.path.exists(path) else None
    file = open(path, "r+")
    try:
        fcntl.lockf(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        return False
    return file


def test_reboots(lost):
    daemon = lost()
    begin = time.monotonic()
    assert daemon.log() == [DIED, REBOOT] and wait(calls) == [PICTURE]
    # No installation may begin in the seconds that are left.
    assert not lock(RPM) and not lock(INSTALLER) and owner_and_mode(RPM) == "0:0 644"
    assert wait(calls) == ["reboot"] and 4.5 < time.monotonic() - begin


@pytest.mark.parametrize("before, kept", [(None, b""), (9600 * "r", 9600 * b"r")])
def test_power_off_record(lost, before, kept):
    put(RECORD, before)
    lost()
    assert wait(lambda: processes("sleep"))
    record = open(RECORD, "rb").read()
    assert record[:len(kept)] == kept and owner_and_mode(RECORD) == "0:0 644"
    kind, line, name, user = struct.unpack_from("=hxx4x32s4s32s", record, len(kept))
    seconds, = struct.unpack_from("i", record, len(kept) + (340 if len(record) - len(kept) == 384 else 344))
    assert (kind, line.rstrip(b"\0"), name, user.rstrip(b"\0")) == (1, b"~~", b"~~\0\0", b"poweroff")
    assert 0 <= time.time() - seconds < 10


@pytest.mark.parametrize("planted", ["fifo", "-> /tmp/elsewhere"])
def test_record_is_written_to_a_file_only(lost, planted):
    put("/tmp/elsewhere", "text")
    os.mkfifo(RECORD) if planted == "fifo" else put(RECORD, planted)
    lost()
    assert wait(lambda: processes("sleep")) and content("/tmp/elsewhere") == "text"


def test_spares_an_update(lost):
    put(UPDATE)
    daemon = lost()
    assert daemon.log() == [DIED, SPARED]
    assert not os.path.exists(RPM) and not os.path.exists(INSTALLER) and not os.path.exists(RECORD)
    assert not processes("sleep") and calls() == []


@pytest.mark.parametrize("locked, free", [(RPM, INSTALLER), (INSTALLER, RPM)])
def test_spares_an_installation(lost, locked, free):
    with lock(locked):
        daemon = lost()
        assert daemon.log() == [DIED, f"err LockFile Failed to lock file  {locked} 11", SPARED]
        assert lock(free)  # not kept by the daemon
    assert not os.path.exists(RECORD) and not processes("sleep") and calls() == []


def test_lock_that_cannot_be_opened(lost):
    put(RPM, "/")
    assert lost().log() == [DIED, f"err LockFile Failed to open file  {RPM} 21",
                            f"err UnLockFile Failed to open file  {RPM} 21", SPARED]
    assert lock(INSTALLER) and not processes("sleep")
