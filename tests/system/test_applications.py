# Installed applications: what is published, what a start of the terminal does, which page is shown.
import os

import pytest
from gi.repository import Gio, GLib

from kx import (PATIENCE, SERVICE, SLEEP, bus, call, call_bus, content, install, owner_and_mode, processes,
                put, remove, wait)

BROWSER, INTERFACE = "com.veltrasys.browser", "com.veltrasys.browser.Server"
POLICY = f"""<busconfig><policy user="root"><allow own="{BROWSER}"/><allow send_destination="{BROWSER}"/>
</policy></busconfig>"""
SHOW = "http://localhost/cgi-bin/page/show?path="
NO_APPS, ONCE_FILE = SHOW + "platform/misc/noapps.html", "/home/platform/html/show_once.html"
DEFAULT_CGI, FOLDERS = "/run/www/cgi-bin-default", ["cgi-bin", "html", "files"]


# Stands in for the browser, on the connection of the tests: what the daemon sends arrives in order.
def show_page(connection, sender, path, interface, method, arguments, invocation):
    pages_shown.extend(arguments.unpack())
    invocation.return_value(GLib.Variant("(i)", (0,)))


pages_shown = []
put("/etc/dbus-1/system.d/browser.conf", POLICY)
call_bus("ReloadConfig")
node = Gio.DBusNodeInfo.new_for_xml(content(f"/usr/share/dbus-1/interfaces/{INTERFACE}.xml"))
bus.register_object("/", node.lookup_interface(INTERFACE), show_page, None, None)


# Those since the last time; with the answer to a call, what was sent before has arrived.
def pages():
    call("Applications.Enumerate"), call("Applications.Enumerate")
    wait(lambda: not GLib.MainContext.default().pending())
    found, pages_shown[:] = pages_shown[:], []
    return found


def loaded(success):
    bus.emit_signal(None, "/", INTERFACE, "loadCompleted", GLib.Variant("(b)", (success,)))


# The browser has shown what there was to show.
@pytest.fixture
def browser(shared):
    remove("/run/www", "/run/sockets")
    call_bus("RequestName", "su", BROWSER, 0)
    pages()
    shared.log(), shared.events(0)
    yield
    call("Applications.Terminate")


# The answer comes before what is started ends what runs.
def restart(daemon):
    bus.call(SERVICE, "/Applications", SERVICE + ".Applications", "Start", GLib.Variant("(a{sv})", ({},)),
             None, 0, int(PATIENCE * 1000), None,
             lambda _, answer: daemon.signals.append((bus.call_finish(answer).print_(True), ({},))))
    assert daemon.events(3) == ["({'return': <true>},)", "OnTerminate", "OnStarted"]


def test_publishing(own):
    install("pay", 4002), install("shop", 4003), put("/home/file")
    put("/run/www/html/gone/page"), put("/run/www/files/.old"), put("/run/www/kept")
    put("/run/www/cgi-bin/pay", "-> /elsewhere"), put("/run/sockets/stale")
    daemon = own().serving()
    for path in ("sockets", "www", *(f"www/{folder}" for folder in FOLDERS)):
        assert owner_and_mode(f"/run/{path}") == "0:0 777"
    for folder in FOLDERS:
        links = {name: content(f"/run/www/{folder}/{name}") for name in os.listdir(f"/run/www/{folder}")}
        assert links == {name: f"-> /home/{name}/{folder}" for name in ("pay", "shop")}
    assert os.listdir("/run/sockets") == [] and os.path.exists("/run/www/kept") and daemon.log() == []
    before = os.lstat("/run/www/html/pay").st_ino
    call("Applications.Enumerate"), remove("/home"), os.mkdir("/home")
    assert call("Applications.Enumerate") == [] and os.lstat("/run/www/html/pay").st_ino == before


FAILED = "warn CreateSymlinksForLighttpd Failed to create "
EACH = [f"{FAILED}{text}" for folder in FOLDERS
        for text in (f'directory  "/var/run/www/{folder}"', f'symlink  "{folder}"  to  "pay"')]


@pytest.mark.parametrize("obstacles, log", [
    ({"/run/www": "", "/run/sockets": ""}, [FAILED + "www directory", *EACH, FAILED + "sockets directory"]),
    ({"/run/www/html": "-> /etc"}, ["err CreateDirIfNeeded Failed to create dir =  20", *EACH[2:4]]),
    ({"/run/www/html/pay": "/", "/run/www/files/pay": "text"}, [EACH[3]])])
def test_publishing_that_fails(browser, shared, obstacles, log):
    install("pay", 4002)
    call("Applications.Enumerate")
    for path, text in obstacles.items():
        put(path, text, owner=4002)
    call("Applications.Enumerate")
    assert shared.log() == log and owner_and_mode("/etc") == "0:0 755" and not os.path.lexists("/etc/pay")


# Programs of boot, and their sockets.
@pytest.mark.smoke
def test_start_sequence(shared, browser):
    install("pay", 4002, "<run_on_boot>bin/stubborn</run_on_boot>",
            bin_stubborn="#!/bin/sh\ntrap '' TERM\nexec sleep 1000\n")
    restart(shared)
    pid, = wait(lambda: processes("sleep"))
    assert "APP_FASTCGI_SOCKET=/var/run/sockets/pay/fcgi" in content(f"/proc/{pid}/environ").split("\0")
    assert owner_and_mode("/run/sockets/pay") == "4002:4002 770" and shared.log() == []
    put("/run/sockets/pay/stale")
    restart(shared)
    assert wait(lambda: len(processes("sleep")) == 1) and not os.path.exists(f"/proc/{pid}")
    assert content("/run/sockets/pay/stale") is None and pages() == [NO_APPS] * 2


@pytest.mark.parametrize("name, page, address", [
    ("pay", "./html/a//../index.html", "pay/index.html"), ("pay", "html/a b/%1\xe4", "pay/a%20b/%251%C3%A4"),
    ("pay", "/home/pay/html/b/html/c", "pay/html/b/c"),
    ("n" * 40, "html/f", "n" * 40 + "/f"), ("n" * 41, "html/f", None), ("pay", "cgi-bin/f", None)])
def test_page_addresses(shared, browser, name, page, address):
    install(name, 4002, f"<show_on_boot>{page}</show_on_boot>")
    put(os.path.normpath(os.path.join("/home", name, page)))
    restart(shared)
    assert pages() == [address and SHOW + address or ""] and shared.log() == []


BOOT, CGI = "<show_on_boot>html/index.html</show_on_boot>", "<cgi_bin_default>true</cgi_bin_default>"
TOO_MANY = f"err StartApplication Multiple applications have {CGI} configured. Only one is allowed."


# An application that does not start counts for the link, but not for the page.
@pytest.mark.parametrize("applications, page, cgi, log", [
    ({"desktop": "", "pay": BOOT}, SHOW + "pay/index.html", None, []),
    ({"desktop": "", "pay": BOOT, "shop": BOOT}, SHOW + "desktop/index.html", None, []),
    ({"pay": "<show_on_boot>html/none</show_on_boot>"}, "", None, [
        'err PathToURI Requested form doesn\'t exist ( "/home/pay/html/none" ) errno: 2']),
    ({"pay": CGI, "shop": CGI}, NO_APPS, None, [TOO_MANY]),
    ({"pay": "<run_on_boot>bin/none</run_on_boot>" + BOOT + CGI, "shop": BOOT}, SHOW + "shop/index.html",
     "-> /home/pay/cgi-bin", ['err StartApplication Failed to start application  "pay"'])])
def test_boot_page(shared, browser, applications, page, cgi, log):
    for number, (name, conf) in enumerate(applications.items()):
        install(name, 4001 + number, conf, **{"html_index.html": ""})
    put("/tmp/old/kept"), put(DEFAULT_CGI, "-> /tmp/old")
    restart(shared)
    assert pages() == [page] and content(DEFAULT_CGI) == cgi and content("/tmp/old/kept") == ""
    assert [record for record in shared.log() if " StartProcess " not in record] == log


def default(**more):
    return call("Applications.Start", "a{sv}", {"default": True} | more), pages()


def test_default_page(shared, browser):
    install("pay", 4002, bin_idle=SLEEP)
    for name in ("systemutils", "systemconfig", "productiontest", "desktop"):
        put(f"/home/{name}/html/index.html")
        assert default() == ({}, [f"{SHOW}{name}/index.html"])
    remove("/home/desktop/html/index.html"), os.mkdir("/home/desktop/html/index.html")
    pay = {"application": "pay", "binary": "idle"}
    assert default(**pay) == ({"errorCode": 0}, [SHOW + "productiontest/index.html"])
    assert default(**pay, default=False) == ({"errorCode": 0}, []) and shared.events(0) == []


def test_page_that_is_shown_once(shared, browser):
    install("pay", 4002, "<run_on_boot>bin/idle 9</run_on_boot>" + CGI, bin_idle=SLEEP)
    put(ONCE_FILE), put(DEFAULT_CGI, "-> /home/old/cgi-bin")
    call("Applications.Start", "a{sv}", {})
    assert pages() == [SHOW + "platform/show_once.html"] and content(DEFAULT_CGI) is None
    assert shared.events(0) == [] and not processes("/home/pay/bin/idle") and os.path.exists(ONCE_FILE)
    for success in True, False:  # each load tries, until another page is asked for
        put(ONCE_FILE), loaded(success)
        assert wait(lambda: not os.path.exists(ONCE_FILE))
    put(ONCE_FILE), default(), loaded(True)
    assert pages() == [] and os.path.exists(ONCE_FILE)


# The last page that was asked for while there was no browser is shown, and only once.
def test_browser_that_goes_and_returns(shared, browser):
    assert default()[1] == [NO_APPS]
    for forms, shows in ((), []), (("", None), [NO_APPS]), ((), []):
        call_bus("ReleaseName", "s", BROWSER)
        for form in forms:
            put("/home/desktop/html/index.html", form)
            assert default()[1] == []
        call_bus("RequestName", "su", BROWSER, 0)
        assert pages() == shows
