# Attacks the installed daemon, one way after the other, see scripts/torture: torture.py SECONDS SEED
# Prints a table of what was tried, and ends with the first attack that something was lost in.
import concurrent.futures
import contextlib
import pathlib
import random
import signal
import sys
import threading
import time

from gi.repository import Gio, GLib

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))
from kx import SERVICE, Daemon, call, calls, content, install, put, run, start, variant, wait  # noqa: E402

METHODS = [("Applications", "Start", "m"), ("System", "SystemCall", "im"), ("Tools", "SetSystemTime", "s"),
           ("Tools", "SetTimeZone", "s"), ("Tools", "SetTimeInfo", "sss"), ("Tools", "Unknown", "sms"),
           ("Tools", "SaveVariableValue", "ss"), ("Tools", "EnableAudiopayd", "b")]
KEYS = ["application", "binary", "params", "default", "mode", "usbForceFullspeed", "dflt", "usbuid", "hubid",
        "newconf", "caching", "buffer-resp", "text", "command", "number", ""]
COMMAND = "$(reboot)'$(reboot)'"  # in quotes or not
TEXTS = ["", "pay", "stops", "desktop", "../../../bin/sh", COMMAND, "\n%1%s%n", "\uffff", "💳\u0301\u202e",
         "2026-02-30 25:61:61", "Europe/../../../etc", "[[[*?\\", "enable", "2"]
VALUES = [GLib.Variant(kind, 7) for kind in "ynqiuxtd"] + [variant(text) for text in TEXTS] + [
    GLib.Variant("o", "/a"), variant(["x" * 1000000]), variant({f"key{n}": "value" for n in range(5000)}),
    *(GLib.Variant.parse(None, text, None, None) for text in ("<" * 20 + "7" + ">" * 20, "[[[[<7>]]]]"))]
NORMAL = [("Applications.Enumerate",), ("Applications.Start", "a{sv}", {"application": "nobody"}),
          ("System.SystemCall", "ia{sv}", 77, {}), ("Tools.SetSystemTime", "s", "yesterday"),
          ("Tools.ResetTimeInfoSource",)]
# Programs that do not want to end: 10, 6, 1 and 1 processes, 16 of them sleep when none forks any more.
UNRULY = {"ignores": "trap '' TERM HUP INT; for i in 1 2 3 4 5 6 7 8 9; do sleep 1000 & done; wait",
          "leaves": "for i in 1 2 3 4 5; do setsid -f sleep 1000; done; exec sleep 1000",
          "stops": "kill -STOP $$", "closes": "exec sleep 1000 <&- >&- 2>&-"}


# A call with arguments of the right types, or of any.
def message(chance):
    thing, member, kinds = chance.choice(METHODS)
    made = Gio.DBusMessage.new_method_call(SERVICE, f"/{thing}", f"{SERVICE}.{thing}", member)
    text, value = chance.choice(TEXTS), chance.choice([*VALUES, "'" * 200000])
    options = dict.fromkeys(chance.sample(KEYS, 8), variant(chance.choice([COMMAND, text, value])))
    right = {"i": chance.randrange(95, 108), "b": True, "s": text, "m": options}
    values = [chance.choice(VALUES) if chance.random() < 0.2 else variant(right[kind]) for kind in kinds]
    made.set_body(GLib.Variant.new_tuple(*values))
    return made


# Waits for most answers, not for some, and is gone before others. Returns how many messages it sent.
def hostile(chance, end):
    address, count = Gio.dbus_address_get_for_bus_sync(Gio.BusType.SYSTEM), 0
    flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
    while time.monotonic() < end:
        connection = Gio.DBusConnection.new_for_address_sync(address, flags)
        for _ in range(chance.randrange(20)):
            if chance.random() < 0.7:
                connection.send_message_with_reply_sync(message(chance), 0, 25000)
            else:
                connection.send_message(message(chance), 0)
            count += 1
        connection.flush_sync()
        connection.close_sync()
    return count


# Meanwhile a well-behaved caller gets its answers.
def messages(chance, end):
    right, normal, longest = [call(*one) for one in NORMAL], 0, 0
    with concurrent.futures.ThreadPoolExecutor() as pool:
        callers = [pool.submit(hostile, random.Random(chance.random()), end) for _ in range(4)]
        while not all(caller.done() for caller in callers):
            for one, answer in zip(NORMAL, right):
                begin = time.monotonic()
                assert call(*one, seconds=25) == answer, one
                normal, longest = normal + 1, max(longest, time.monotonic() - begin)
    count = sum(caller.result() for caller in callers)
    assert "reboot" not in calls(), "a text reached a shell"
    return f"{count:,} messages; {normal:,} normal calls, {longest * 1000:.0f} ms the longest"


def unruly(chance, end):
    ended = 0
    while time.monotonic() < end:
        for name in chance.sample(sorted(UNRULY), 4):
            start(name)
        assert wait(lambda: run("pgrep", "-U", "4002", "-c", "-x", "sleep")[1] == "16\n")
        call("Applications.Terminate", seconds=25)
        assert wait(lambda: not run("pgrep", "-U", "4002")[1])  # killed ones may take a moment
        ended += 18
    return f"{ended:,} processes ended"


# SIGKILL while files are written; another daemon starts.
def killed(chance, end):
    kills, variables, both = 0, "/etc/rc.d/rc.platform.conf", [f'export MSG="{c * 3000}"\n' for c in "ab"]
    put(variables, both[0])
    while time.monotonic() < end or kills == 0:
        daemon = Daemon().serving()
        call("Tools.ResetTimeInfoSource")
        threading.Timer(chance.random() * 0.05, daemon.process.kill).start()
        with contextlib.suppress(GLib.Error):
            while True:
                call("Tools.SetTimeZone", "s", "")
                call("Tools.ResetTimeInfoSource")
                call("Tools.SaveVariableValue", "ss", "MSG", chance.choice("ab") * 3000)
        assert daemon.end() == -signal.SIGKILL
        assert run("kxregistry", "get", "%platform.timeInfoSource")[1].strip() in ("MANUAL", "UNKNOWN")
        assert content(variables) in both, "a mixture of variables"
        kills += 1
    return f"{kills} kills"


def vitals(daemon):
    for one in NORMAL:  # what they open stays open
        call(*one)
    return daemon.vitals()


# The attack with a daemon that must be the same afterwards.
def survived(attack, *arguments):
    daemon = Daemon().serving()
    before, tried = vitals(daemon), attack(*arguments)
    assert wait(lambda: vitals(daemon) == before), (before, vitals(daemon))
    assert daemon.end() == 0
    return tried


seconds, chance = float(sys.argv[1]), random.Random(int(sys.argv[2]))
print("| attack | tried |\n|---|---|")
install("pay", 4002, "", **{f"bin_{name}": f"#!/bin/sh\n{text}\n" for name, text in UNRULY.items()})
for attack, share in (messages, 0.6), (unruly, 0.2):
    tried = survived(attack, chance, time.monotonic() + share * seconds)
    print(f"| `{attack.__name__}` | {tried} |", flush=True)
print(f"| `killed` | {killed(chance, time.monotonic() + 0.2 * seconds)} |")
