# The desk terminal with all samples at work: scripts/run --once. A row builds on those before it.
import subprocess
import time

import pytest

BROWSER = "busctl call com.veltrasys.browser / com.veltrasys.browser.Server"
UPDATE, PAGE = BROWSER + " UpdatePage sb", BROWSER + " QueryPage"
ICONS = PAGE + " | grep -o '<img [^>]*>[^<]*' | sed 's/.*>//' | xargs"


def sh(command):
    return subprocess.run(["bash", "-c", command], capture_output=True, text=True, timeout=60)


# What is done succeeds, and a look comes to show the text; a picture is taken for --screenshot.
@pytest.mark.parametrize("command, look, text", [
    ("kxctl apps", ICONS, "Pay Shop Broken Settings About\n"),
    ("""desk touch 'a[href*="pay/index"]'""", PAGE, "Amount in euro"),
    ("desk type 7.9; desk touch '.keypad button:nth-child(5)'", PAGE, "Amount in euro"),
    ("desk touch 'button[type=submit]'", PAGE + " | grep Approved", "7.95"),
    ("desk show /cgi-bin/shop/catalogue", PAGE, "0 items, 0.00"),
    ("desk touch 'a[href*=cake]'", PAGE, "1 item, 3.90"),
    ("desk show /cgi-bin/desktop/about", PAGE, "Kernel"),
    ("desk touch 280 25", PAGE, "Touch an application"),
    ("desk show desktop/settings.html; ! desk touch '#none'", PAGE, "Brightness"),
    (UPDATE + """ "<p><x id='state'>a &lt; b</x></p>" true | grep -x 'i 0'""", PAGE, ">a &lt; b</p>"),
    (UPDATE + """ "<p><x id='none'>one</x><x id='state' attribute='class'>on</x></p>" true |
        grep -x 'i -1'""", PAGE, r'class=\"on\"'),
    (BROWSER + " PromptLabelButton s '<prompt><label>Label</label><button>No</button></prompt>' | grep 'i 0'",
     PAGE, ">Label"),
    (BROWSER + " PlayVideo s http://localhost/html/desktop/none.webm | grep -x 'i 0'", PAGE, "<video"),
    (BROWSER + " ShowPage s file:///etc/passwd | grep -x 'i -1'", PAGE, "Brightness"),
    ("pgrep -u pay payd && pgrep -u shop shopd", "log 200", "Failed to start application"),
    ("! busybox wget -q http://localhost/cgi-bin/broken/any", "log", "broken: (gw_"),
    ("kxctl start pay printer Totals", "cat /tmp/pay/printout.txt", "printed by pay (4002:4002)"),
    ("kxctl system usb --mode serial", "cat /run/standins/calls", "modprobe g_serial"),
    ("kxregistry set %platform.syslog.remoteIP:port 10.0.0.5:514", "cat /etc/sysconfig/syslog", "-R 10.0"),
    ("kxctl start", "desk url && desk touch .tile", "desktop/index.html"),
    ("kxctl start broken stubborn", "pgrep -u broken -f 'sleep infinity'", ""),
    ("kxctl restart --yes", "cat /run/standins/calls", "reboot"),
    ("cat /tmp/pay/stopped /tmp/shop/stopped", "! pgrep -u pay,shop,broken", "")])
def test_desk(command, look, text):
    end = time.monotonic() + 15
    assert sh(command).returncode == 0
    while (seen := sh(look)).returncode != 0 or text not in seen.stdout:
        assert time.monotonic() < end, seen
        time.sleep(0.05)
    sh("busctl call com.veltrasys.browser /Desk com.veltrasys.browser.Desk Screenshot s ''")
