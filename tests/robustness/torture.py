"""Attacks the installed daemon, one way after the other, see scripts/torture: torture.py SECONDS SEED

After each attack the daemon must be the same process on the same connection, with as many descriptors and
threads as before and no children. Prints a table; the exit status is 0 when nothing was lost."""
import contextlib
import multiprocessing
import os
import pathlib
import random
import signal
import sys
import threading
import time

from gi.repository import Gio, GLib

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))
from kx import SERVICE, UNDER, Daemon, Refused, call, calls, content, install  # noqa: E402
from kx import processes, put, run, status, variant, wait  # noqa: E402

METHODS = [("Applications", "Enumerate", ""), ("Applications", "Start", "m"), ("System", "SystemCall", "im"),
           ("Tools", "SetSystemTime", "s"), ("Tools", "SetTimeZone", "s"), ("Tools", "SetTimeInfo", "sss"),
           ("Tools", "SaveVariableValue", "ns"), ("Tools", "EnableAudiopayd", "b")]
KEYS = ["application", "binary", "params", "default", "mode", "usbForceFullspeed", "dflt", "usbuid", "hubid",
        "newconf", "caching", "buffer-resp", "text", "command", "number", ""]
TEXTS = ["", "pay", "mark", "desktop", "../../../bin/sh", "'\"`reboot`$(reboot);reboot\n|reboot&%1%s%n",
         "\uffff", "💳\u0301\u202e", "2026-02-30 25:61:61", "Europe/../../../etc", "[[[*?\\", "enable", "2"]
BASIC = [GLib.Variant(kind, 7) for kind in "ynqiuxtd"] + [variant(text) for text in TEXTS] + [
    GLib.Variant("o", "/a"), variant(b"x" * 1000000), variant({f"key{n}": "value" for n in range(5000)})]
NORMAL = [("Applications.Enumerate",), ("Applications.Start", "a{sv}", {"application": "nobody"}),
          ("System.SystemCall", "ia{sv}", 77, {}), ("Tools.SetSystemTime", "s", "yesterday"),
          ("Tools.ResetTimeInfoSource",)]
# Programs that do not want to end, and how many processes each is.
UNRULY = {"forks": ("for i in 1 2 3 4 5 6 7 8 9; do sleep 1000 & done; wait", 10),
          "ignores": ("trap '' TERM HUP INT; for i in 1 2 3 4 5 6 7 8 9; do sleep 1000 & done; wait", 10),
          "leaves": ("for i in 1 2 3 4 5; do setsid -f sleep 1000; done; exec sleep 1000", 6),
          "stops": ("kill -STOP $$", 1), "closes": ("exec sleep 1000 <&- >&- 2>&-", 1)}
VARIABLES, AUDIO = "/etc/rc.d/rc.platform.conf", "/etc/platform/99-audiopayd"


def value(chance):
    one = chance.choice(BASIC)
    for _ in range(chance.choice([0, 0, 1, 3, 20])):
        one = chance.choice([GLib.Variant("v", one), GLib.Variant.new_array(one.get_type(), [one])])
    return one


def message(chance):
    """A call with arguments of the right types, or of any, or what only the bus may say."""
    thing, member, kinds = chance.choice(METHODS)
    if chance.random() < 0.05:
        made = Gio.DBusMessage.new_signal("/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged")
        made.set_destination(SERVICE)
        body = [variant("com.veltrasys.browser"), variant(":1.1"), variant("")]
    elif chance.random() < 0.2:
        path, member = "/" + "x" * chance.randrange(1, 100000), "x" * 200
        made = Gio.DBusMessage.new_method_call(SERVICE, path, None, member)
        body = [value(chance) for _ in range(3)]
    else:
        text = "'" * 1000000 if chance.random() < 0.01 else chance.choice(TEXTS)
        arguments = {chance.choice(KEYS): value(chance) if chance.random() < 0.3 else text for _ in range(4)}
        right = {"i": chance.choice([*range(95, 108), chance.getrandbits(31)]), "b": True, "m": arguments,
                 "s": text, "n": chance.choice(TEXTS)}
        made = Gio.DBusMessage.new_method_call(SERVICE, f"/{thing}", f"{SERVICE}.{thing}", member)
        body = [value(chance) if chance.random() < 0.2 else variant(right[kind]) for kind in kinds]
    made.set_body(GLib.Variant.new_tuple(*body))
    return made


def hostile(chance, end, count):
    """Waits for most answers, not for some, and is gone before others."""
    address, connection = Gio.dbus_address_get_for_bus_sync(Gio.BusType.SYSTEM), None
    flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
    while time.monotonic() < end:
        connection = connection or Gio.DBusConnection.new_for_address_sync(address, flags)
        made, way = message(chance), chance.random()
        if way < 0.7 and made.get_message_type() == Gio.DBusMessageType.METHOD_CALL:
            connection.send_message_with_reply_sync(made, 0, 25000)
        else:
            connection.send_message(made, 0)
        if way > 0.9:
            connection.flush_sync()
            connection.close_sync()
            connection = None
        with count:
            count.value += 1


def callers(chance, end):
    """Four of them, and the number of their messages so far."""
    context = multiprocessing.get_context("spawn")
    count = context.Value("i")
    chances = [random.Random(chance.random()) for _ in range(4)]
    made = [context.Process(target=hostile, args=(each, end, count), daemon=True) for each in chances]
    for caller in made:
        caller.start()
    return made, count


def messages(daemon, chance, end):
    """random and hostile messages, callers that vanish"""
    right, normal, longest = [call(*one) for one in NORMAL], 0, 0
    made, count = callers(chance, end)
    while any(caller.is_alive() for caller in made):
        for one, answer in zip(NORMAL, right):
            begin = time.monotonic()
            assert call(*one, seconds=25) == answer, one
            normal, longest = normal + 1, max(longest, time.monotonic() - begin)
    assert [caller.exitcode for caller in made] == [0] * 4
    assert "reboot" not in calls(), "a shell or a forged signal asked for a reboot"
    return f"{count.value:,} messages; {normal:,} normal calls, {longest * 1000:.0f} ms the longest"


def start(name):
    assert call("Applications.Start", "a{sv}", {"application": "pay", "binary": name}) == {"errorCode": 0}


def starts(daemon, chance, end):
    """programs that end at once"""
    put("/tmp/marks", "", mode=0o666)
    count = 0
    while time.monotonic() < end:
        start("mark")
        count += 1
    assert wait(lambda: os.path.getsize("/tmp/marks") == count), count
    return f"{count:,} programs, each ran"


def unruly(daemon, chance, end):
    """programs that fork, ignore signals, leave the session, stop, close descriptors; then Terminate"""
    ended, longest = 0, 0
    while time.monotonic() < end:
        chosen = chance.sample(sorted(UNRULY), 3)
        for name in chosen:
            start(name)
        expected = sum(UNRULY[name][1] for name in chosen)
        assert wait(lambda: len(run("pgrep", "-U", "4002")[1].split()) == expected), chosen
        begin = time.monotonic()
        call("Applications.Terminate", seconds=25)
        ended, longest = ended + expected, max(longest, time.monotonic() - begin)
        assert not run("pgrep", "-U", "4002")[1], chosen
    return f"{ended:,} processes ended, {longest * 1000:.0f} ms the longest Terminate"


def killed(daemon, chance, end):
    """SIGKILL while files are written; another daemon starts"""
    kills, both = 0, [f'export MSG="{letter * 3000}"\n' for letter in "ab"]
    put(VARIABLES, both[0])
    put(AUDIO, mode=0o755)
    while time.monotonic() < end or kills == 0:
        other = Daemon()
        assert other.serving()
        call("Tools.ResetTimeInfoSource")
        threading.Timer(chance.random() * 0.05, other.process.kill).start()
        with contextlib.suppress(Refused):
            while True:
                call("Tools.SetTimeZone", "s", "")
                call("Tools.ResetTimeInfoSource")
                call("Tools.SaveVariableValue", "ss", "MSG", chance.choice("ab") * 3000)
                call("Tools.EnableAudiopayd", "b", chance.random() < 0.5)
        assert other.end() == -signal.SIGKILL
        source = run("kxregistry", "get", "%platform.timeInfoSource")
        assert source[1].strip() in ("MANUAL", "UNKNOWN"), source
        assert content(VARIABLES) in both, "a mixture of variables"
        assert os.stat(AUDIO).st_mode & 0o777 in (0o644, 0o755), "another mode"
        kills += 1
    return f"{kills} kills"


def bus(daemon, chance, end):
    """the bus is killed under the load of messages"""
    made, count = callers(chance, end + 3600)
    assert wait(lambda: count.value > 50, 60)
    calls()
    os.kill(int(content("/run/dbus/pid")), signal.SIGKILL)
    seen = []
    assert wait(lambda: seen.extend(calls()) or "reboot" in seen), seen
    for caller in made:
        caller.join()
    assert seen.count("reboot") == 1 and daemon.end() == 0
    return f"{count.value:,} messages before; one reboot asked for"


def vitals(daemon):
    for one in NORMAL:  # what they open stays open
        call(*one)
    return {"owner": call("x.GetNameOwner", "s", SERVICE, service="org.freedesktop.DBus", path="/",
                          interface="org.freedesktop.DBus"), "children": processes(parent=daemon.pid),
            "files": len(os.listdir(f"/proc/{daemon.pid}/fd")), "threads": status(daemon.pid)["Threads"]}


def main(seconds, seed):
    chance, lost = random.Random(seed), 0
    print(f"seed {seed}, {seconds} seconds\n\n| attack | tried | lost |\n|---|---|---|")
    for attack, share in (messages, 0.5), (starts, 0.15), (unruly, 0.15), (killed, 0.15), (bus, 0.05):
        install("pay", 4002, "", bin_mark="#!/bin/sh\nprintf x >>/tmp/marks\n",
                **{f"bin_{name}": f"#!/bin/sh\n{text}\n" for name, (text, _) in UNRULY.items()})
        daemon = None
        try:
            if attack is not killed:
                daemon = Daemon()
                assert daemon.serving()
                before, memory = vitals(daemon), int(status(daemon.pid)["VmRSS"].split()[0])
            tried, nothing = attack(daemon, chance, time.monotonic() + share * seconds), "nothing"
            if attack not in (killed, bus):
                assert wait(lambda: vitals(daemon) == before), (before, vitals(daemon))
                grown = int(status(daemon.pid)["VmRSS"].split()[0]) - memory
                assert UNDER or grown < 64 * 1024, f"{grown} kB more"
                assert daemon.end() == 0
                tried += f"; {grown:,} kB more resident"
        except (AssertionError, Refused) as error:
            tried, nothing, lost = "", f"**{error!r}**", lost + 1
            if daemon:
                daemon.end(signal.SIGKILL)
        print(f"| {attack.__name__}: {attack.__doc__} | {tried} | {nothing} |", flush=True)
    return lost


if __name__ == "__main__":
    sys.exit(main(float(sys.argv[1]), int(sys.argv[2])) > 0)
