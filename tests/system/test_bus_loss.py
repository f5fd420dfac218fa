# The bus dies under the daemon: the terminal reboots, unless software is being installed.
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
DIED = "emerg DBusDied Seems that dbus-daemon died."
REBOOT = "emerg DBusDied Updater is not running => The unit must be restarted"
SPARED = "emerg DBusDied Updater is running => Avoid reboot"


# Starts a daemon on a bus of its own, kills that bus, and returns the daemon.
@pytest.fixture
def lost(own):
    def lose():
        bus = subprocess.Popen(["dbus-daemon", "--config-file=/etc/dbus-1/system.conf", "--nofork",
                                "--nopidfile", "--address=" + ADDRESS])
        assert wait(lambda: os.path.exists("/tmp/bus"))
        daemon = own(env={"DBUS_SYSTEM_BUS_ADDRESS": ADDRESS})
        assert wait(lambda: run("busctl", "--address=" + ADDRESS, "introspect", SERVICE, "/Tools")[0] == 0)
        bus.kill(), bus.wait()
        assert wait(lambda: "=> " in content(LOG)[daemon.mark:])
        return daemon
    yield lose
    for pid in processes("sleep"):  # what has not rebooted yet shall not; the picture may come late
        os.kill(pid, signal.SIGKILL), calls(1)
    remove(RPM, INSTALLER, UPDATE, RECORD, "/tmp/bus")


# Takes the lock of a file as long as what is returned lives; fails when the daemon has it.
def lock(path):
    file = open(path, "a+")
    fcntl.lockf(file, fcntl.LOCK_SH | fcntl.LOCK_NB)
    return file


def test_reboots(lost):
    daemon, begin = lost(), time.monotonic()
    assert daemon.log() == [DIED, REBOOT] and wait(calls) == ["fbv -f -r /etc/platform/sys/maintenance.png"]
    for path in RPM, INSTALLER:  # no installation may begin in the seconds that are left
        assert owner_and_mode(path) == "0:0 644" and pytest.raises(BlockingIOError, lock, path)
    assert wait(calls) == ["reboot"] and 4.5 < time.monotonic() - begin


@pytest.mark.parametrize("kept", [b"", 9600 * b"r"])
def test_power_off_record(lost, kept):
    put(RECORD, kept or None)
    daemon = lost()
    assert wait(lambda: processes("sleep")) and owner_and_mode(RECORD) == "0:0 644"
    before, record = (text := open(RECORD, "rb").read())[:len(kept)], text[len(kept):]
    kind, line, name, user = struct.unpack_from("=hxx4x32s4s32s", record)
    seconds, = struct.unpack_from("i", record, 340 if len(record) == 384 else 344)
    assert (before, kind, name) == (kept, 1, b"~~\0\0") and 0 <= time.time() - seconds < 10
    assert (line.rstrip(b"\0"), user.rstrip(b"\0")) == (b"~~", b"poweroff")
    assert daemon.end() == 0 and processes("sleep")  # it has not waited for the reboot


@pytest.mark.parametrize("plant", [os.mkfifo, lambda path: put(path, "-> /tmp/elsewhere")])
def test_record_goes_to_a_file_only(lost, plant):
    put("/tmp/elsewhere", "text"), plant(RECORD), lost()
    assert wait(lambda: processes("sleep")) and content("/tmp/elsewhere") == "text"


@pytest.mark.parametrize("prepare, path, other, records", [
    (put, UPDATE, None, []),
    (lock, RPM, INSTALLER, [f"LockFile Failed to lock file  {RPM} 11"]),
    (lock, INSTALLER, RPM, [f"LockFile Failed to lock file  {INSTALLER} 11"]),
    (os.mkdir, RPM, INSTALLER, [f"{name}ockFile Failed to open file  {RPM} 21" for name in ("L", "UnL")])])
def test_spares_an_installation(lost, prepare, path, other, records):
    prepared = prepare(path)
    assert lost().log() == [DIED, *("err " + record for record in records), SPARED]
    assert calls() == [] and not processes("sleep") and not os.path.exists(RECORD)
    assert lock(other) if other else not os.path.exists(RPM) and not os.path.exists(INSTALLER)
    del prepared
