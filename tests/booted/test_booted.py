"""The packages on a machine that boots: a container, seen from outside. scripts/booted runs this."""
import os
import pathlib
import subprocess
import time

import pytest

ROOTS, PACKAGES = pathlib.Path(os.environ["KX_ROOTS"]), os.environ["KX_PACKAGES"]
APPLICATION = "pgrep -U pay -G pay sleep"
REBOOT, POWER_OFF = 133, 0  # how systemd-nspawn ends
ACCESS = [
    ("clerk", "apps", 0), ("clerk", "system log refused", 1), ("guest", "apps", 1), ("pay", "apps", 1),
    ("admin", "apps", 0), ("admin", "system log 'by admin'", 0)]


def wait(condition):
    end = time.monotonic() + 60
    while not (value := condition()) and time.monotonic() < end:
        time.sleep(0.1)
    return value


class Machine:
    def __init__(self, init):
        self.root = ROOTS / f"run-{init}"
        for command in (["rm", "-rf", self.root], ["cp", "-a", ROOTS / init, self.root],
                        ["cp", "-rT", "tests/booted/files", self.root],
                        ["cp", "-rT", PACKAGES, self.root / "packages"], ["chroot", self.root, "/setup"]):
            subprocess.run(command, check=True)
        self.boot()

    def boot(self):
        nspawn = "systemd-nspawn --register=no --keep-unit --quiet --private-network --boot -D".split()
        log = open(f"{self.root}.log", "w+")
        self.container = subprocess.Popen([*nspawn, self.root], stdin=log, stdout=log, stderr=log)
        assert wait(self.application)

    def first(self):
        pid = self.container.pid
        return pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().strip()

    def run(self, command, account="root"):
        enter = ["nsenter", "-t", self.first() or "0", "-a", "su", "-", account, "-c", command]
        return subprocess.run(enter, capture_output=True, text=True, timeout=60)

    def out(self, command):
        return self.run(command).stdout.strip()

    def application(self):
        return self.first() and self.run("kxctl apps").returncode == 0 and self.out(APPLICATION)

    def logged(self, pattern):
        return self.out(f"grep -E '{pattern}' /var/log/kx")

    def ends(self, status):
        assert self.container.wait(60) == status
        self.boot()


@pytest.fixture(scope="module", params=["systemd", "sysvinit"])
def machine(request):
    machine = Machine(request.param)
    yield machine
    subprocess.run(["kill", "-KILL", machine.first()], check=True)  # it outlives its systemd-nspawn


def test_the_policy_admits_groups_and_records_have_priorities(machine):
    for account, command, status in ACCESS:
        assert machine.run(f"kxctl {command}", account).returncode == status, (account, command)
    assert wait(lambda: machine.logged('^info kxcore: .* Server:DoLogData:[0-9]+:  "by admin"$'))
    assert not machine.logged("DoLogData.*refused|SPOKEN")


def test_an_upgrade_leaves_the_daemon_a_stop_the_applications_and_a_start_replaces_them(machine):
    daemon, application = machine.out("pgrep -x kxcore"), machine.application()
    assert machine.run("dpkg --install /packages/kxcore_*.deb").returncode == 0
    assert machine.out("pgrep -x kxcore") == daemon != ""
    assert machine.run("service kxcore stop").returncode == 0
    assert wait(lambda: machine.out("pgrep -x kxcore") == "") and machine.out(APPLICATION) == application
    assert machine.run("service kxcore start").returncode == 0
    assert wait(machine.application) not in (False, "", application)


def test_the_terminal_reboots_after_a_stop_request_to_applications_and_powers_off(machine):
    assert machine.run("kxctl restart --yes", "clerk").returncode == 0
    machine.ends(REBOOT)
    assert (machine.root / "var/asked/log").read_text() == "/cgi-bin/pay/stop\n"
    assert machine.run("kxctl system poweroff --yes", "admin").returncode == 0
    machine.ends(POWER_OFF)


def test_without_a_bus_the_terminal_reboots_unless_it_is_being_updated(machine):
    machine.run("pkill -x dbus-daemon")
    machine.ends(REBOOT)
    machine.run("touch /var/lib/installer/.update_started; pkill -x dbus-daemon")
    assert wait(lambda: machine.logged("^emerg kxcore:.*:  Updater is running => Avoid reboot$"))
    with pytest.raises(subprocess.TimeoutExpired):
        machine.container.wait(10)
    machine.run("rm /var/lib/installer/.update_started; reboot")
    machine.ends(REBOOT)


def test_purging_leaves_nothing(machine):
    assert machine.run("apt-get purge -qq -y kxcore kxcore-tools kxcore-platform").returncode == 0
    left = machine.out("pgrep -x kxcore; find /etc /home /usr /var -name '*kx*' -o -name '*qtplatform*'")
    assert left.split() == ["/etc/rsyslog.d/kx.conf", "/var/log/kx"]
