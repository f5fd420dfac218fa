"""The packages on machines that boot, seen from outside; scripts/booted and scripts/vm run this."""
import os
import pathlib
import random
import re
import shlex
import subprocess
import time

import pytest

ROOTS, KINDS = pathlib.Path(os.environ["KX_ROOTS"]), os.environ["KX_MACHINES"].split()
POLICY = "/etc/dbus-1/system.d/com.veltrasys.kx.core.conf"
DENIAL = '<policy group="kxcore"><deny send_destination="com.veltrasys.kx.core"/></policy>'
UPGRADE = """cd /packages; dpkg-deb -R kxcore_*.deb next; sed -i '/^Version/s/$/.1/' next/DEBIAN/control
    dpkg-deb -b next; dpkg --install next.deb; dpkg -s kxcore | grep ^Version"""
LINE = """exec 3<>/dev/ttyGS0 4<>/dev/ttyACM0; stty raw -echo <&3; stty raw -echo <&4
    echo asked >&4; timeout 60 head -n 1 <&3; echo answered >&3; timeout 60 head -n 1 <&4"""
CABLE = """ip netns add far; ip link set usb1 netns far; ip addr add 10.9.0.1/24 dev usb0; ip link set usb0 up
    ip -n far addr add 10.9.0.2/24 dev usb1; ip -n far link set usb1 up; ping -q -c 1 -w 20 10.9.0.2"""
RECEIVER = """printf 'module(load="imudp")\\ninput(type="imudp" port="514")\\n*.* /var/log/far' >/etc/far.conf
    ip netns exec far rsyslogd -f /etc/far.conf -i /run/far.pid; ip netns exec far ss -lun"""
COUNT = "while kxregistry set number $((i += 1)); do :; done >/dev/null 2>&1 &"
LOG, FAR_LOG, OPTIONS = "/var/log/messages", "/var/log/far", "/etc/sysconfig/syslog"
TARGET, WAKE = "%platform.syslog.remoteIP:port", "%network.wifi.phy.wakeup_on_magic"
RTC, OFFSET = "`cat /sys/class/rtc/rtc0/since_epoch`", "`cat /etc/time_offset`"
# Command, exit status and output, account if not root. Tried again until it is so or a bound is reached.
IN_A_CONTAINER = [
    ("kxctl apps", "0 .*pay.*", "clerk"), ("kxctl apps", "1.*", "guest"), ("kxctl apps", "1.*", "pay"),
    ("kxctl system log refused", "1.*", "clerk"), ("kxctl system log 'by admin'", "0", "admin"),
    ("grep -E '^info kxcore: .* Server:DoLogData:[0-9]+:  \"by admin\"$' /var/log/kx", "0 .*"),
    ("grep -E 'DoLogData.*refused|SPOKEN' /var/log/kx", "1"),
    (f"echo '<busconfig>{DENIAL}</busconfig>' >{POLICY}; service dbus reload", "0.*"),
    ("kxctl apps", "1.*", "clerk"), (f"rm -f {POLICY}; service dbus reload", "0.*"),
    # Its parent is init, unlike that of the init script of the same name.
    ("kxctl apps", "0 .*", "clerk"), ("pgrep -P 1 -x kxcore >/daemon; pgrep -u pay sleep >/apps", "0"),
    (UPGRADE, r"0 .*\.1"), ("pgrep -P 1 -x kxcore | cmp - /daemon", "0"), ("service kxcore stop", "0.*"),
    ("pgrep -x kxcore", "1"), ("pgrep -u pay sleep | cmp - /apps", "0"), ("service kxcore start", "0.*"),
    ("pgrep -u pay sleep && ! pgrep -u pay sleep | cmp - /apps", "0 .*")]
ON_A_KERNEL_OF_ITS_OWN = [
    # The USB port has a software controller: both ends of its cable are here, the far one in a network apart.
    ("kxctl system usb --mode serial", "0.*"), ("cat /sys/bus/usb/devices/*/idVendor", "0 .*abcd.*"),
    (LINE, "0 asked answered"),
    ("kxctl system usb --mode ethernet; ls -d /sys/module/g_*", "0 .*/g_ether"), (CABLE, ".* 1 received.*"),
    # There, a second syslog daemon.
    (RECEIVER, "0 .*:514.*"),
    (f"kxregistry set {TARGET} 10.9.0.2:514; cat {OPTIONS}", '0 .*=" -L -R 10.9.0.2:514"'),
    (f"kxctl system log all; grep -l ' \"all\"$' {LOG} {FAR_LOG}", f"0 {LOG} {FAR_LOG}"),
    (f"kxregistry set {TARGET} ''; cat {OPTIONS}", '0 .*=""'),
    (f"kxctl system log here; grep -l ' \"here\"$' {LOG} {FAR_LOG}", f". {LOG}"),
    # Wireless, first without hardware, then with some that has no wake-on-WLAN.
    (f"kxregistry set network.wifi.presence 1; service kxcore restart; grep 'wifi is missing' {LOG}", "0 .*"),
    ("modprobe mac80211_hwsim; iw dev; iw phy0 wowlan enable magic-packet", ".* phy#0 .*not supported.*"),
    (f"kxregistry set {WAKE} 1; kxregistry set {WAKE} 0; grep 'Wowlan feature couldn.t be' {LOG}", "0 .*"),
    # The hardware clock stays as it is.
    ("kxctl time set '2031-05-06 07:08:09'; kxctl zone set Europe/Berlin; date +%F%Z", "0 2031-05-06CEST"),
    (f"echo $((`date +%s` - {RTC} - {OFFSET}))", "0 -?[01]")]
in_containers = pytest.mark.skipif(KINDS == ["vm"], reason="nothing of it depends on the kernel")


def wait(condition, seconds=60):
    end = time.monotonic() + seconds
    while not (value := condition()) and time.monotonic() < end:
        time.sleep(0.1)
    return value


class Container:
    reboot, power_off, does, keeps = 133, 0, IN_A_CONTAINER, ("cat /var/asked/log", "0 /cgi-bin/pay/stop")

    def __init__(self, init):
        self.root = ROOTS / f"run-{init}"
        self.boot()

    def boot(self):
        nspawn = "systemd-nspawn --register=no --keep-unit --quiet --private-network --boot -D".split()
        log = open(f"{self.root}.log", "w+")
        self.process = subprocess.Popen([*nspawn, self.root], stdin=log, stdout=log, stderr=log)
        self.wait_for_application()

    def first(self):
        pid = self.process.pid
        return pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().strip()

    def run(self, command, account="root"):
        enter = ["nsenter", "-t", self.first() or "0", "-a", "su", "-", account, "-c", command]
        done = subprocess.run(enter, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, timeout=60)
        return " ".join([str(done.returncode), *done.stdout.split()])

    def wait_for_application(self):
        assert wait(lambda: re.fullmatch(r"0 .*\d", self.run("kxctl apps && pgrep -u pay sleep")), 300)

    def ends(self, how):
        assert self.process.wait(120) == how

    def kill(self):
        subprocess.run(["kill", "-KILL", self.first()], check=True)
        self.process.wait()


class VirtualMachine(Container):
    reboot, power_off, does = "reboot: Restarting system", "reboot: Power down", ON_A_KERNEL_OF_ITS_OWN
    keeps = (f"cat /var/asked/log; date -d @$(({RTC} + {OFFSET})) +%F", "0 /cgi-bin/pay/stop 2031-05-06")

    def boot(self):
        self.heard, self.asked = "", 0
        self.process = subprocess.Popen(shlex.split(os.environ["KX_VM"]), bufsize=0, stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE)
        os.set_blocking(self.process.stdout.fileno(), False)
        assert wait(lambda: self.send("stty -echo; PS1= exec sh -f") or self.run("", seconds=5), 300)
        self.wait_for_application()

    def send(self, line):
        self.process.stdin.write(f"{line}\n".encode())

    def hears(self, pattern):
        self.heard += (self.process.stdout.read() or b"").decode(errors="replace").replace("\r", "")
        return re.search(pattern, self.heard)

    def run(self, command, account="root", seconds=200):
        self.asked += 1
        self.send(f"su - {account} -c {shlex.quote(command)} </dev/null >/run/said 2>&1")
        self.send(f"echo $? $(cat /run/said) END{self.asked}")
        answer = rf"(?m)(\d+.*) END{self.asked}$"
        wait(lambda: self.hears(answer) or self.process.poll() is not None, seconds)
        return self.hears(answer)[1] if self.hears(answer) else ""

    def ends(self, how):
        assert self.process.wait(120) == 0 and (ROOTS / "vm.console").read_text().strip().endswith(how)

    def kill(self):
        self.process.kill()
        self.process.wait()


@pytest.fixture(scope="module", params=KINDS)
def machine(request):
    return (VirtualMachine if request.param == "vm" else Container)(request.param)


def shows(machine, command, pattern, *account):
    assert wait(lambda: re.fullmatch(pattern, machine.run(command, *account))), machine.run(command, *account)


def test_what_it_does(machine):
    for row in machine.does:
        shows(machine, *row)


def test_it_restarts_after_a_stop_request_to_applications_and_keeps_what_it_was_told(machine):
    machine.run("kxctl restart --yes", "clerk")
    machine.ends(machine.reboot)
    machine.boot()
    shows(machine, *machine.keeps)


@in_containers
def test_without_a_bus_the_terminal_reboots_unless_it_is_being_updated(machine):
    machine.run("pkill -x dbus-daemon")
    shows(machine, "grep -ao poweroff /tmp/wtmp", "0 poweroff")
    machine.ends(machine.reboot)
    machine.boot()
    shows(machine, "grep '^emerg kxcore:.*Updater is not running => The unit' /var/log/kx", "0.*")
    machine.run("touch /var/lib/installer/.update_started; pkill -x dbus-daemon")
    shows(machine, "grep '^emerg kxcore:.*:  Updater is running => Avoid reboot$' /var/log/kx", "0.*")
    assert not wait(lambda: machine.process.poll() is not None, 10)
    machine.run("rm /var/lib/installer/.update_started; reboot")
    machine.ends(machine.reboot)
    machine.boot()


def test_the_registry_survives_hard_stops_while_it_is_written(machine):
    for _ in range(3):
        least = random.randint(1, 40)
        machine.run(f"kxregistry set kept yes; kxregistry set number 0; {COUNT}")
        assert wait(lambda: int(machine.run("kxregistry get number")[2:]) >= least, 300)
        machine.kill()
        machine.boot()
        shows(machine, "kxregistry get kept", "0 yes")
        assert int(machine.run("kxregistry get number")[2:]) >= least - 1


def test_power_off_ends_the_machine(machine):
    machine.run("kxctl system poweroff --yes", "admin")
    machine.ends(machine.power_off)


@in_containers
def test_purging_leaves_nothing(machine):
    machine.boot()
    machine.run("apt-get purge -qq -y kxcore kxcore-tools kxcore-platform")
    shows(machine, "pgrep -x kxcore; find /etc /home /usr /var -name '*kx*' -o -name '*qtplatform*'",
          "0 /etc/rsyslog.d/kx.conf /var/log/kx")
