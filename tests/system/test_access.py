# The installed bus policy, account by account, and the interface that the daemon shows.
import os
import pwd
import re

import pytest

from kx import BUS, PATIENCE, SERVICE, Gio, GLib, bus, call, call_bus, calls, content, put, run, wait

ACCOUNTS = ["pay", "clerk", "admin", "root"]  # from the least trusted on; each may what those before it may
BROWSER = "com.veltrasys.browser.Server"
DENIED, UNKNOWN = BUS + ".Error.AccessDenied", BUS + ".Error.UnknownObject"
STANDARD = {"Introspect": BUS + ".Introspectable", "Ping": BUS + ".Peer", "GetAll": BUS + ".Properties"}
# Arguments that change nothing where that is possible, by their types.
ARGUMENTS = {"": (), "s": (SERVICE + ".System",), "ss": ("NAME", "value"), "sss": ("", "", "none"),
             "b": (True,), "a{sv}": ({"application": GLib.Variant("s", "none")},), "ia{sv}": (1, {})}
# Every method there is: the first who may, object, method, types of the arguments and of what is answered.
METHODS = [(first, *found) for first, text in (
    ("pay", ".Introspect() -> s, System.Introspect() -> s, System.Ping() ->"),
    ("clerk", """Applications.Enumerate() -> aa{sv}, Applications.Start(a{sv}) -> a{sv},
                 Applications.Restart(s) ->, Applications.Terminate() ->,
                 System.GetAll(s) -> a{sv}, Tools.IsAudiopaydEnabled() -> b"""),
    ("admin", """System.SystemCall(ia{sv}) -> a{sv}, Tools.SetSystemTime(s) -> i, Tools.SetTimeZone(s) -> i,
                 Tools.SetTimeInfo(sss) -> i, Tools.ResetTimeInfoSource() -> i, Tools.EnableAudiopayd(b) ->,
                 Tools.SaveVariableValue(ss) -> i, nowhere.Introspect() -> """ + UNKNOWN),
) for found in re.findall(r"(\w*)\.(\w+)\((.*?)\) -> ?([^,\s]*)", text)]


def connect(account):
    # A connection to the bus under that account.
    user = pwd.getpwnam(account)
    os.setgroups(os.getgrouplist(account, user.pw_gid)), os.seteuid(user.pw_uid)
    try:
        flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
        address = Gio.dbus_address_get_for_bus_sync(Gio.BusType.SYSTEM)
        return Gio.DBusConnection.new_for_address_sync(address, flags, None, None)
    finally:
        os.seteuid(0), os.setgroups([])


def outcome(connection, thing, member, types="", arguments=None, interface="", service=SERVICE):
    # The types of what is answered, or the name of the error.
    to = STANDARD.get(member, f"{SERVICE}.{thing}") if interface == "" else interface
    message = Gio.DBusMessage.new_method_call(service, "/" + thing, to, member)
    message.set_body(GLib.Variant(f"({types})", ARGUMENTS[types] if arguments is None else arguments))
    reply, _ = connection.send_message_with_reply_sync(message, 0, int(PATIENCE * 1000), None)
    return reply.get_error_name() or reply.get_signature()


def test_daemon_hears_the_browser():
    # In the daemon's place, since it does not tell what it hears; this comes before the first daemon.
    name, heard = Gio.bus_own_name_on_connection(bus, SERVICE, 0, None, None), []
    bus.signal_subscribe(None, BROWSER, "loadCompleted", "/", None, 0, lambda *signal: heard.append(signal))
    browser = connect("guest")
    assert call_bus("GetNameOwner", "s", SERVICE)  # it knows the name and the rule
    # Only to the daemon, which is refused, then to everybody: were both let through, both would be here.
    for destination in SERVICE, None:
        browser.emit_signal(destination, "/", BROWSER, "loadCompleted", GLib.Variant("(b)", (True,)))
    assert wait(lambda: heard) and len(heard) == 1
    Gio.bus_unown_name(name)


@pytest.mark.smoke
@pytest.mark.parametrize("account", ACCOUNTS)
def test_each_method(shared, account):
    connection = connect(account)
    for first, *method, answered in METHODS:
        expected = answered if ACCOUNTS.index(account) >= ACCOUNTS.index(first) else DENIED
        assert (method, outcome(connection, *method)) == (method, expected)
    # By those who may: the restart, which a member may ask for too, and the system call.
    count = {"pay": 0, "clerk": 1}.get(account, 2)
    assert calls(count) == ["reboot"] * count
    own = "", "RequestName", "su", (SERVICE, 0), BUS, BUS
    assert account == "root" or outcome(connection, *own) == DENIED


def test_no_way_around(shared):
    address, pay, clerk = call_bus("GetNameOwner", "s", SERVICE), connect("pay"), connect("clerk")
    for first, *method, _ in METHODS:
        assert first == "pay" or outcome(pay, *method, service=address) == DENIED
    for account, answered in (clerk, DENIED), (connect("admin"), "aa{sv}"):
        assert outcome(account, "Applications", "Enumerate", interface=None) == answered
    disguised = "Applications", "SystemCall", "ia{sv}", (1, {})
    assert "UnknownMethod" in outcome(bus, *disguised)
    assert outcome(clerk, *disguised, SERVICE + ".System") == DENIED and calls() == []


def test_signals_are_heard_by_everybody_and_not_forged(shared):
    heard, listener = [], connect("guest")
    listener.signal_subscribe(SERVICE, None, "OnTerminate", None, None, 0, lambda *all: heard.append(all))
    outcome(listener, "", "Ping")  # the bus knows the rule before it answers
    # The daemon reboots the terminal on this signal, which only its own connection can emit.
    for destination in [], [f"--dest={SERVICE}"]:
        assert run("dbus-send", "--system", *destination, "--type=signal", "/org/freedesktop/DBus/Local",
                   "org.freedesktop.DBus.Local.Disconnected", account="pay")[0] == 0
    call("Applications.Terminate")
    assert wait(lambda: heard) and not [line for line in shared.log() if "dbus-daemon died" in line]


def test_missing_groups_let_nobody_in(shared):
    groups = content("/etc/group")
    put("/etc/group", groups.replace("\nkx", "\nold-kx"), mode=0o644), call_bus("ReloadConfig")
    seen = [outcome(connect(account), "Applications", "Enumerate") for account in ACCOUNTS]
    put("/etc/group", groups, mode=0o644), call_bus("ReloadConfig")
    assert seen == [DENIED, DENIED, DENIED, "aa{sv}"]


def test_interface_is_the_installed_one(shared):
    for thing in "Applications", "System", "Tools":
        form = rf'<interface name="{SERVICE}.{thing}">.*?</interface>'
        installed, = re.findall(form, content(f"/usr/share/dbus-1/interfaces/{SERVICE}.{thing}.xml"), re.S)
        shown = call(thing + ".Introspect", interface=STANDARD["Introspect"])
        assert re.findall(form, shown, re.S) == [installed] and ("<!--" in installed) == (thing != "Tools")
        for toolkit in ("com.trolltech", "org.qtproject") if thing == "Applications" else ():
            for value in '.In0" value="QVariantMap"', '.Out0" value="QList&lt;QVariantMap&gt;"':
                assert f"{toolkit}.QtDBus.QtTypeName{value}" in installed
