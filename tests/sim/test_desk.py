"""The desk terminal with all samples at work: scripts/run --once. A test builds on those before it."""
import json
import re
import subprocess
import time

import pytest


def sh(command):
    return subprocess.run(["bash", "-c", command], capture_output=True, text=True, timeout=60)


def wait(condition):
    end = time.monotonic() + 15
    while not (value := condition()) and time.monotonic() < end:
        time.sleep(0.05)
    return value


def browser(method, *arguments, path="/", interface="Server"):
    call = ["busctl", "--system", "--json=short", "call", "com.veltrasys.browser", path,
            "com.veltrasys.browser." + interface, method, *arguments]
    return json.loads(subprocess.run(call, capture_output=True, timeout=60).stdout)["data"][0]


def shows(*texts):
    """Whether the page on the screen comes to have the texts; a picture is taken for --screenshot."""
    found = wait(lambda: all(text in browser("QueryPage") for text in texts))
    browser("Screenshot", "s", "", path="/Desk", interface="Desk")
    return found


def test_desktop_has_the_icons_of_all_applications():
    assert shows(">Pay</a>", ">Settings</a>")
    titles = re.findall("<img [^>]*>([^<]+)", browser("QueryPage"))
    assert titles == ["Pay", "Shop", "Broken", "Settings", "About"]


@pytest.mark.parametrize("actions, texts", [
    ("""desk touch 'a[href*="pay/index"]'""", ["Amount in euro"]),
    ("desk type 7.9; desk touch '.keypad button:nth-child(5)'", ["Amount in euro"]),
    ("desk touch 'button[type=submit]'", ["Approved", "7.95"]),
    ("desk show /cgi-bin/shop/catalogue", ["0 items, 0.00"]),
    ("desk touch 'a[href*=cake]'", ["1 item, 3.90"]),
    ("desk show /cgi-bin/desktop/about", ["Kernel"]),
    ("desk touch 280 25", ["Touch an application"]),
    ("desk show desktop/settings.html; ! desk touch '#none'", ["Brightness"])])
def test_screen_follows_the_hand(actions, texts):
    assert sh(actions).returncode == 0 and shows(*texts)


@pytest.mark.parametrize("method, argument, result, text", [
    ("UpdatePage", "<p><x id='state'>a &lt; b</x></p>", 0, ">a &lt; b</p>"),
    ("UpdatePage", "<p><x id='none'>one</x><x id='state' attribute='class'>on</x></p>", -1, 'class="on"'),
    ("PromptLabelButton", "<prompt><label>Insert card</label><button>No</button></prompt>", 0, "Insert card"),
    ("PlayVideo", "http://localhost/html/desktop/none.webm", 0, "<video"),
    ("ShowPage", "file:///etc/passwd", -1, "Brightness")])
def test_browser_service(method, argument, result, text):
    more = ["sb", argument, "true"] if method == "UpdatePage" else ["s", argument]
    assert browser(method, *more) == result and shows(text)


@pytest.mark.parametrize("command, look, text", [
    ("pgrep -u pay payd && pgrep -u shop shopd", "log 200", "Failed to start application"),
    ("! busybox wget -q http://localhost/cgi-bin/broken/any", "log", "broken: (gw_"),
    ("kxctl start pay printer Totals", "cat /tmp/pay/printout.txt", "printed by pay (4002:4002)"),
    ("kxctl system usb --mode serial", "cat /run/standins/calls", "modprobe g_serial"),
    ("kxregistry set %platform.syslog.remoteIP:port 10.0.0.5:514", "cat /etc/sysconfig/syslog", "-R 10.0"),
    ("kxctl start", "desk url && desk touch .tile", "desktop/index.html"),
    ("kxctl start broken stubborn", "pgrep -u broken -f 'sleep infinity'", ""),
    ("kxctl restart --yes", "cat /run/standins/calls", "reboot"),
    ("cat /tmp/pay/stopped /tmp/shop/stopped", "! pgrep -u pay,shop,broken", "")])
def test_daemon_does(command, look, text):
    assert sh(command).returncode == 0
    assert wait(lambda: (done := sh(look)).returncode == 0 and text in done.stdout)
