"""The packages on a machine that boots: a container, seen from outside. scripts/booted runs this."""
import os
import pathlib
import re
import shutil
import signal
import subprocess
import time

import pytest

ROOTS, PACKAGES = pathlib.Path(os.environ["KX_ROOTS"]), os.environ["KX_PACKAGES"]
NEXT_VERSION = pathlib.Path(__file__).parent.parent / "packaging/next-version"
REBOOT, POWER_OFF = 133, 0  # how systemd-nspawn ends
POLICY = "etc/dbus-1/system.d/com.veltrasys.kx.core.conf"
DENIAL = '<busconfig><policy group="kxcore"><deny send_path="/Applications"/></policy></busconfig>'
FILES = {
    "home/pay/app.conf": "<application><run_on_boot>bin/serve</run_on_boot></application>",
    "home/pay/bin/serve": "#!/bin/sh\necho SPOKEN; echo SPOKEN >&2; exec sleep 1000000\n",
    "home/pay/cgi-bin/stop": "#!/bin/sh\necho $REQUEST_URI >>/var/asked/log; printf '\\nSPOKEN'\n",
    "etc/lighttpd/conf-enabled/99-kx.conf": """server.modules += ("mod_cgi", "mod_alias")
alias.url = ("/cgi-bin/" => "/var/run/www/cgi-bin/")
$HTTP["url"] =~ "^/cgi-bin/" { cgi.assign = ("" => "") }
""",
    "etc/rsyslog.d/kx.conf": """$template kx,"%syslogseverity-text% %programname%:%msg%\\n"
*.* /var/log/kx;kx
""",
}
SETUP = """apt-get install -qq -y --no-install-recommends /packages/kxcore{,-platform,-tools}_*.deb
mkdir -m 777 /var/asked; mkdir -p /var/lib/rpm /var/lib/installer/database
for account in pay:4001 clerk:1001 admin:1002 guest:1003; do
    useradd --uid ${account#*:} --user-group --no-create-home --shell /bin/sh ${account%:*}
done
adduser --quiet clerk kxcore; adduser --quiet admin kxadmin; chown -R pay:pay /home/pay"""


def wait(condition, seconds=60):
    """Returns what the condition gave last."""
    end = time.monotonic() + seconds
    while not (value := condition()) and time.monotonic() < end:
        time.sleep(0.1)
    return value


class Machine:
    def __init__(self, init):
        self.systemd, self.root = init == "systemd", ROOTS / f"run-{init}"
        subprocess.run(["rm", "-rf", self.root], check=True)
        subprocess.run(["cp", "-a", ROOTS / init, self.root], check=True)
        shutil.copytree(PACKAGES, self.root / "packages")
        (self.root / "next").mkdir()
        subprocess.run([NEXT_VERSION, PACKAGES, self.root / "next"], check=True)
        for path, text in FILES.items():
            (self.root / path).parent.mkdir(parents=True, exist_ok=True)
            (self.root / path).write_text(text)
            (self.root / path).chmod(0o755)
        subprocess.run(["chroot", self.root, "bash", "-ec", SETUP], check=True)

    def boot(self):
        nspawn = "systemd-nspawn --register=no --keep-unit --quiet --private-network --boot -D".split()
        log = open(f"{self.root}.log", "w+")
        self.container = subprocess.Popen([*nspawn, self.root], stdin=log, stdout=log, stderr=log)
        assert wait(self.serves)

    def init(self):
        pid = self.container.pid
        return pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().strip()

    def run(self, command, account=None):
        login = ["su", "-", account, "-c", command] if account else ["bash", "-c", command]
        return subprocess.run(["nsenter", "-t", self.init() or "0", "-a", *login],
                              capture_output=True, text=True, timeout=60)

    def out(self, command):
        return self.run(command).stdout.strip()

    def serves(self):
        return self.init() and self.run("kxctl apps").returncode == 0 and self.out("pgrep -u pay sleep")

    def service(self, verb, name="kxcore"):
        command = f"systemctl {verb} {name}" if self.systemd else f"/etc/init.d/{name} {verb}"
        assert self.run(command).returncode == 0

    def logged(self, pattern):
        return re.search(pattern, (self.root / "var/log/kx").read_text(), re.MULTILINE)

    def ends(self, status):
        assert self.container.wait(60) == status
        self.boot()


@pytest.fixture(scope="module", params=["systemd", "sysvinit"])
def machine(request):
    machine = Machine(request.param)
    try:
        machine.boot()
        yield machine
    finally:
        # The container outlives its systemd-nspawn, but not its own first process.
        if machine.container.poll() is None:
            os.kill(int(machine.init()), signal.SIGKILL)
            machine.container.wait()


def test_boot(machine):
    assert machine.out("ps -eo user,group,args | grep '[s]leep 1000000'").split()[:2] == ["pay", "pay"]
    starts = [int(machine.out(f"ps -o pid= -C {name} | head -n 1")) for name in ("dbus-daemon", "kxcore")]
    assert starts == sorted(starts)
    if machine.systemd:
        assert machine.out("systemctl is-active kxcore") == "active"


@pytest.mark.parametrize("account, command, status", [
    ("clerk", "apps", 0), ("clerk", "system log refused", 1), ("guest", "apps", 1), ("pay", "apps", 1),
    ("admin", "apps", 0), ("admin", "system log 'by admin'", 0)])
def test_a_group_may_what_its_policy_allows(machine, account, command, status):
    assert machine.run(f"kxctl {command}", account).returncode == status


def test_records_have_priorities_and_applications_none(machine):
    assert wait(lambda: machine.logged(r'^info kxcore: platform/kx-core Server:DoLogData:\d+:  "by admin"$'))
    assert not machine.logged("DoLogData.*refused|SPOKEN")


def test_stopping_leaves_applications_and_starting_replaces_them(machine):
    before = machine.out("pgrep -u pay sleep")
    machine.service("stop")
    assert wait(lambda: machine.out("pgrep -x kxcore") == "") and machine.out("pgrep -u pay sleep") == before
    machine.service("start")
    assert wait(machine.serves) not in ("", before)
    machine.service("restart")


def test_the_bus_reloads_its_policy(machine):
    override = machine.root / POLICY
    override.write_text(DENIAL)
    machine.service("reload", "dbus")
    assert wait(lambda: machine.run("kxctl apps", "clerk").returncode == 1)
    override.unlink()
    machine.service("reload", "dbus")
    assert wait(lambda: machine.run("kxctl apps", "clerk").returncode == 0)


def test_an_upgrade_leaves_the_daemon_running(machine):
    before = machine.out("pgrep -x kxcore")
    assert machine.run("apt-get install -qq -y /next/kxcore{,-platform,-tools}_*.deb").returncode == 0
    assert machine.out("dpkg-query -W -f '${Version}' kxcore").endswith(".1")
    assert machine.out("pgrep -x kxcore") == before
    machine.service("restart")
    assert wait(machine.serves) and machine.out("pgrep -x kxcore") != before


def test_a_stop_request_reaches_applications_before_the_terminal_reboots(machine):
    assert machine.run("kxctl restart --yes", "clerk").returncode == 0
    machine.ends(REBOOT)
    assert (machine.root / "var/asked/log").read_text() == "/cgi-bin/pay/stop\n"


def test_without_a_bus_the_terminal_reboots(machine):
    record = pathlib.Path(f"/proc/{machine.init()}/root/tmp/wtmp")
    machine.run("pkill -x dbus-daemon")
    assert wait(lambda: record.exists() and b"poweroff" in record.read_bytes(), 5)
    machine.ends(REBOOT)
    assert machine.logged(r"^emerg kxcore:.*:  Seems that dbus-daemon died\.$")
    assert machine.logged("^emerg kxcore:.*:  Updater is not running => The unit must be restarted$")


def test_during_an_update_it_does_not(machine):
    machine.run("touch /var/lib/installer/.update_started; pkill -x dbus-daemon")
    assert wait(lambda: machine.logged("^emerg kxcore:.*:  Updater is running => Avoid reboot$"))
    with pytest.raises(subprocess.TimeoutExpired):
        machine.container.wait(10)
    machine.run("rm /var/lib/installer/.update_started; reboot")
    machine.ends(REBOOT)


def test_power_off(machine):
    assert machine.run("kxctl system poweroff --yes", "admin").returncode == 0
    machine.ends(POWER_OFF)


def test_removal_and_purge_leave_nothing(machine):
    assert machine.run("apt-get remove -qq -y kxcore").returncode == 0
    assert machine.out("pgrep -x kxcore") == "" and machine.run("kxctl apps").returncode == 3
    assert machine.run("apt-get purge -qq -y kxcore kxcore-tools kxcore-platform").returncode == 0
    known = machine.out("find /etc /usr /var /home -name '*kx*' -o -name '*qtplatform*'").splitlines()
    assert sorted(known) == ["/etc/lighttpd/conf-enabled/99-kx.conf", "/etc/rsyslog.d/kx.conf", "/var/log/kx"]
