# kxctl as an operator and a script see it: command line, exit status, standard output, standard error.
import json
import os
import re
import signal
import subprocess

import pytest

from kx import PATIENCE, SLEEP, calls, content, install, put, run, wait

VERBS = """apps;app pay;start;start pay receipt;home;stop;restart --yes;status;monitor;time set 2024-05-17;
zone set UTC;timeinfo  UTC HOST;timeinfo reset;var set A b;audiopayd;audiopayd on;system reboot --yes;
system poweroff --yes;system hwtest;system console enable;system log text;system web;
system usb --mode serial;system kernel;system kernel set 1;system battery;system keypad;
system call 99 text=x --json"""
PAY = """<run_on_boot>bin/idle 100</run_on_boot><show_on_boot>html/index.html</show_on_boot>
<desktop_item icon_path="html/pay.svg" title="Pay&#x9b;2J" icon_position="2">html/index.html</desktop_item>"""


def kxctl(*arguments, **options):
    return run("kxctl", *arguments, **options)


def matches(found, status, out, err):
    return found[0] == status and re.fullmatch(out, found[1], re.S) and re.fullmatch(
        f"kxctl: {err}\n" if err else "", found[2])


# With a terminal for input and output.
def on_terminal(command, typed="\n"):
    return run("script", "-qec", f"stty -echo cols 60; TERM=xterm {command}", "/dev/null", input=typed)[:2]


@pytest.fixture
def apps(shared):
    install("pay", 4002, PAY, bin_idle=SLEEP, bin_receipt='#!/bin/sh\necho "$@" >$APP_TMP_DIR/receipt',
            **{"html_index.html": "x"})
    install("shop\033[31m", 4003)
    put("/etc/rc.d/rc.platform.conf"), put("/etc/platform/99-audiopayd", mode=0o644)
    assert kxctl("start", "--wait") == (0, "all applications are started\n", "")
    calls()
    return shared


@pytest.mark.parametrize("command", [line.strip() for line in VERBS.split(";")])
def test_without_daemon(command):
    assert kxctl(*command.split(" ")) == (3, "", "kxctl: the daemon is not running\n")


def test_start_waits_until_it_is_done(own):
    put("/home/platform/html/show_once.html")  # with which nothing is started
    assert (daemon := own()).serving()
    assert matches(kxctl("start", "--wait", "--timeout", "1"), 3, "", "the applications were not started.*")
    put(marker := "/var/run/sockets/marker")
    starting = subprocess.Popen(["kxctl", "start", "--wait"], stderr=subprocess.PIPE, text=True)
    assert wait(lambda: not os.path.exists(marker)) and daemon.end() == 0
    assert starting.wait() == 3 and "the daemon ended before" in starting.stderr.read()


@pytest.mark.parametrize("command, reason", [
    ("", "no verb given; see kxctl --help"),
    ("bogus", "unknown verb 'bogus'; see kxctl --help"),
    ("apps --bogus", "apps: unknown option 'bogus'"),
    ("--timeout soon apps", "--timeout: 'soon' is no number of seconds"),
    ("restart", "restart: not without --yes when there is no terminal to ask on"),
    ("system", "system: needs an operation"),
    ("timeinfo now UTC host", "timeinfo: 'host' is none of HOST, MANUAL, HUB, UNKNOWN"),
    ("var set A-B x", "var set: 'A-B' is no name of a shell variable; --force stores it"),
    ("system web --caching yes", "system web: --caching: 'yes' is none of on, off"),
    ("system call 95", "system call: there is no call '95', only 1 and 96 to 105"),
    ("system call 99 text", "system call: 'text' is neither KEY=TEXT nor KEY:=JSON"),
    ("system call 99 text:={", "system call: 'text:={' holds no JSON value that can be sent"),
])
def test_misuse(command, reason):
    verb = re.match("([a-z ]+): ", reason)
    hint = f"; see kxctl {verb[1]} --help" if verb else ""
    assert kxctl(*command.split()) == (2, "", f"kxctl: {reason}{hint}\n")


@pytest.mark.parametrize("command, status, out, err", [
    ("apps", 0, r"NAME +USER +UID/GID +SERVED BY +RUNNING +BOOT PROGRAM +BOOT PAGE\npay +pay +4002/4002 "
     r"+FastCGI +idle +/home/pay/bin/idle 100 +/home/pay/html/index.html\nshop\\u001b.* - +- +-\n", ""),
    ("apps --names --json", 0, r'\[\n    "pay",\n    "shop\\u001b\[31m"\n\]\n', ""),
    ("app pay", 0, r"name +pay\nuser +pay \(4002\)\n.*boot program +/home/pay/bin/idle 100\n(?!.*prompts).*"
     r"Desktop:\n  POSITION .*\n  2 +Pay\\u009b2J +/html/pay/index.html  /html/pay/pay.svg\n", ""),
    ("start pay", 2, "", "start: needs a BINARY of pay: idle, receipt; see kxctl start --help"),
    ("start --json none x", 1, r'\{\n *"errorCode": -1,.*\}\n', "Application none doesn't exist"),
    ("home", 0, "no application has a default form; .* is shown when a browser comes; none runs\n", ""),
    ("stop", 0, "all applications are stopped\n", ""),
    ("status", 0, r"daemon +pid \d+, since \d{4}-.*, \d+\.\d MiB\n.*page +not known\ndefault form +none\n\n"
     r"APPLICATION .*\npay +\d+ +idle +00:00:\d\d +\d+\.\d MiB\nshop\S+ +- +- +- +-\n", ""),
    ("zone list", 0, r".*\nEurope/Berlin\n.*\nUTC\n.*", ""),
    ("var set --force A-B x", 0, "", ""),
    ("system battery", 1, "", r"the operation failed.* \(the daemon answered -1\)"),
    ("system call 103", 0, "return  0\n", ""),
    ("system call 97 caching=maybe", 1, "", r"Invalid caching status: maybe \(the daemon answered -1\)"),
])
def test_answers(apps, command, status, out, err):
    assert matches(kxctl(*command.split()), status, out, err)


@pytest.mark.parametrize("command, expected", [
    ("reboot --yes", "reboot"), ("poweroff --yes", "poweroff"), ("console disable", "console disable"),
    ("hwtest --url http://localhost/x", "hwtest -f OPEN_ON_EXIT_URL=http://localhost/x"),
    ("web --protocol HTTPS --caching off --buffering on", "lighthttpd restart"),
    ("usb --mode serial --unit-serial --hub-id AB --lte-connected", "modprobe g_serial .*gadget_uid=y"),
    ("call 97 newconf=HTTP caching=on", "lighthttpd restart"),
])
def test_reaches_the_platform(apps, command, expected):
    assert kxctl("system", *command.split())[::2] == (0, "")
    called = []
    assert wait(lambda: called.extend(calls()) or any(re.fullmatch(expected, line) for line in called))


def test_passes_parameters_and_json(apps):
    assert kxctl("start", "pay", "receipt", "a", "--json") == (0, "pay: started receipt\n", "")
    assert wait(lambda: content("/tmp/pay/receipt")) == "a --json\n"
    assert "\x9b" not in (text := kxctl("--json", "apps")[1])  # as much to a terminal as ESC [
    pay, shop = json.loads(text)
    assert json.loads(kxctl("app", "pay", "--json")[1]) == pay and len(pay) == 23
    assert (pay["uid"], pay["desktopItems"][0]["title"], shop["name"]) == (4002, "Pay\x9b2J", "shop\x1b[31m")


def test_default_form_and_conflicts(apps):
    install("desktop", 4004, "<show_on_boot>html/index.html</show_on_boot>", **{"html_index.html": "x"})
    assert matches(kxctl("home"), 0, "the form html/index.html of desktop is shown when a browser .*", "")
    assert re.search(r"\ndefault form +desktop\nconflict +desktop: .*\nconflict +pay: <show_on_boot> is also "
                     "set by desktop; the default form is shown instead\n", kxctl("status")[1])
    assert json.loads(kxctl("status", "--json")[1])["daemon"]["pid"] == apps.pid


def test_weaker_source_is_told_why(shared):
    assert kxctl("timeinfo", "", "UTC", "HUB") == (0, "", "")
    assert '"source": "HUB"' in kxctl("time", "--json")[1]
    reason = "UNKNOWN does not overwrite what HUB has set; 'kxctl timeinfo reset' forgets HUB"
    assert kxctl("timeinfo", "", "UTC", "UNKNOWN")[2] == f"kxctl: {reason} (the daemon answered 1)\n"
    assert kxctl("timeinfo", "reset")[0] == 0 and kxctl("timeinfo", "", "UTC", "UNKNOWN") == (0, "", "")


def test_monitor(apps):
    monitor = subprocess.Popen(["timeout", str(PATIENCE), "kxctl", "monitor"], text=True,
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    assert monitor.stderr.readline() == "kxctl: monitoring, Ctrl-C ends\n"
    kxctl("zone", "set", "Europe/Berlin"), kxctl("start")
    for event in "/Tools  TimeInfoChanged .*Europe/Berlin  MANUAL", ".*  OnTerminate  {}", ".*OnStarted  {}":
        assert re.fullmatch(r"[-\d]+ [:\d.]+  " + event + "\n", monitor.stdout.readline())
    monitor.send_signal(signal.SIGINT)
    assert (monitor.wait(), monitor.stdout.read(), monitor.stderr.read()) == (0, "", "")


def test_on_a_terminal(apps):
    assert "\033[1mNAME" in (text := on_terminal("kxctl apps")[1]) and "/home/p…" in text
    assert max(map(len, re.sub("\033[^m]*m", "", text).splitlines())) == 60
    assert "\033" not in kxctl("apps")[1] + on_terminal("NO_COLOR=1 kxctl apps")[1]
    for command in "restart", "system reboot", "system poweroff":
        status, out = on_terminal("kxctl " + command, "n\n")
        assert status == 1 and "? [y/N] " in out and out.endswith("nothing was done\n")
    assert on_terminal("kxctl system reboot", "y\n")[0] == 0 and calls() == ["reboot"]


def test_waits_and_gives_up(shared):
    os.kill(shared.pid, signal.SIGSTOP)
    late, (status, out) = kxctl("apps", "--timeout", "1"), on_terminal("kxctl apps --timeout 3")
    os.kill(shared.pid, signal.SIGCONT)
    assert matches(late, 3, "", "the daemon did not answer in time.*")
    assert status == 3 and re.search("waiting for the daemon….*the daemon did not answer in time", out, re.S)


def test_refusals_of_the_system(shared):
    assert matches(kxctl("apps", account="guest"), 1, "", "the system bus does not let this account .*")
    assert run("sh", "-c", "kxctl apps >/dev/full") == (1, "", "kxctl: cannot write to standard output\n")
    without_bus = kxctl("apps", env={"DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/run/none"})
    assert matches(without_bus, 3, "", "cannot reach the system bus: .*")


@pytest.mark.parametrize("conf, problem", [
    ("<prompts>x", "2: error: not well-formed: .*; nothing of the file is read"),
    ("<Prompts>x</Prompts>", "2: error: <Prompts>: unknown element; it is not read"),
    ("<prompts>res/list<!-- x --></prompts>", "2: error: <prompts>: only its text up to .*: 'res/list'"),
    ("<prompts>/etc/x</prompts>", "2: error: <prompts>: File '/etc/x' isn't located in .* Ignored."),
    ("<run_on_boot>bin/no</run_on_boot>", "2: error: <run_on_boot>: program '.*/no' does not exist"),
    ("<show_on_boot>res/list</show_on_boot>", "2: error: <show_on_boot>: 'res/list' has no page address: .*"),
    ("<resources>a</resources>\n<resources>res</resources>", "2: error: <resources>: .* does not exist\n.*"
     "/app.conf:3: warning: <resources>: given more than once; the last one counts"),
    ("<desktop_item icon_position='101'>html/index.html</desktop_item>",
     r"2: warning: <desktop_item>: 'icon_position' should be 1 to 100 \(actual value: 101\)"),
    ("<resources>../shop</resources>", "2: warning: <resources>: '/home/shop' leads out of .*"),
    ("<white_list signature='0aFF' signature_path='./res/list'>res/list</white_list>"
     "<show_on_boot>~/html/index.html</show_on_boot><desktop_item>html/index.html?page=1</desktop_item>", ""),
])
def test_check(conf, problem):
    put("/tmp/pay/app.conf", f"<application>\n{conf}</application>")
    put("/tmp/pay/res/list", mode=0o644), put("/tmp/pay/html/index.html")
    counts = [len(re.findall(f": {severity}: ", problem)) for severity in ("error", "warning")]
    result = "errors: {}, warnings: {}".format(*counts) if problem else "ok"
    out = (f"/tmp/pay/app.conf:{problem}\n" if problem else "") + f"pay: {result}\n"
    assert matches(kxctl("check", "/tmp/pay"), int(counts[0] > 0), out, "")


def test_check_of_all_homes():
    page = "<show_on_boot>html/index.html</show_on_boot><cgi_bin_default>true</cgi_bin_default>"
    for name, owner in ("pay", 4002), ("shop", 1000):
        install(name, owner, page, **{"html_index.html": "x", "cgi-bin_x": "x"})
    install("user", 4001), install(long := "n" * 41, 4003, ""), put("/home/pay/bin/x", mode=0o644)
    also = ("{0}/app.conf: error: <show_on_boot> is also set by {1}; the default form is shown instead\n"
            "{0}/app.conf: error: <cgi_bin_default> is also set by {1}; none becomes the default\n")
    assert kxctl("check") == (1, (
        f"/home/{long}: error: the name is longer than 40 characters, so its pages have no address\n"
        f"{long}: errors: 1, warnings: 0\n"
        "/home/pay/bin/x: warning: not executable, so it cannot be started\n"
        f"{also.format('/home/pay', 'shop')}pay: errors: 2, warnings: 1\n"
        "/home/shop: warning: owned by 1000:1000, which is no application account (4000 to 4999)\n"
        f"{also.format('/home/shop', 'pay')}shop: errors: 2, warnings: 1\n"
        "/home/user/app.conf: warning: No such file or directory; the application has no settings\n"
        "user: errors: 0, warnings: 1\n"), "")
    assert len(json.loads(kxctl("check", "/home/pay", "/home/shop", "--json")[1])) == 2


def test_help_and_manual_know_every_verb():
    manual = content("/usr/share/man/man1/kxctl.1").replace("\\-", "-")
    verbs = re.findall(r"^  ([a-z]+(?: [a-z]+)*)(?=  | [^a-z ])", kxctl("--help")[1], re.M)
    assert len(verbs) == 30
    for verb in verbs:
        assert re.match(f"Usage: kxctl {verb} .*--timeout", kxctl("help", *verb.split())[1], re.S), verb
        assert re.search(rf'\n\.[BR]+I? "?{verb}[" \n]', manual), verb


COMPLETE = """source /usr/share/bash-completion/completions/kxctl; COMP_LINE=$1 COMP_POINT=${#1}
_kxctl "${1%% *}"; echo "${COMPREPLY[*]}" """


@pytest.mark.parametrize("line, offered", [
    ("kxctl a", "app apps audiopayd"), ("kxctl system kernel ", "set"), ("kxctl --json app ", "pay shop"),
    ("kxctl start pay re", "receipt refund"), ("kxctl system console ", "disable enable"),
    ("kxctl system usb --mode ", "ethernet serial"), ("kxctl apps --timeout 5 --n", "--names"),
    ("kxctl apps ", "--help --json --names --timeout"), ("kxctl check /tmp/ap", "/tmp/application"),
    ("kxctl zone set Europe/Berl", "Europe/Berlin"), ("kxctl timeinfo '' Europe/Berlin H", "HOST HUB"),
    ("kxregistry ", "delete get list set watch"), ("kxregistry get a:", "b"),
])
def test_completes(shared, line, offered):
    install("pay", 4002, "", **{"bin_" + name: "" for name in ("receipt", "refund", "re;boot", "re$(id)")})
    install("shop", 4003), put("/tmp/application", "/"), run("kxregistry", "set", "a:b", "1")
    assert run("bash", "-c", COMPLETE, "bash", line) == (0, offered + "\n", "")
