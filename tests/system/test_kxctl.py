# kxctl as an operator and a script see it: command line, exit status, standard output, standard error.
import json
import re
import signal
from subprocess import PIPE, Popen

import pexpect
import pytest

from kx import PATIENCE, SLEEP, calls, content, install, put, rows, run, wait

PAY = """<run_on_boot>bin/idle 100</run_on_boot><show_on_boot>html/x</show_on_boot>
<desktop_item icon_path="html/x" title="Pay&#x9b;2J" icon_position="2">html/x</desktop_item>"""


def kxctl(*arguments):
    return run("kxctl", *arguments)


# Whether "status output errors" is of a form.
def matches(found, form):
    return re.fullmatch(form, "{} {}{}".format(*found).strip(), re.S)


# With a terminal for input and output.
def on_terminal(command, answer=""):
    return pexpect.run("env TERM=xterm " + command, withexitstatus=True, events={r"\? \[y/N\] ": answer},
                       timeout=PATIENCE, encoding="utf8", dimensions=(24, 60))


@pytest.fixture
def apps(shared):
    install("pay", 4002, PAY, html_x="", bin_idle=SLEEP, bin_receipt='#!/bin/sh\necho "$@" >$APP_TMP_DIR/x')
    install("shop\033[31m", 4003, "<show_on_boot>html/x</show_on_boot>", html_x="")
    assert kxctl("start", "--wait") == (0, "all applications are started\n", "")
    return shared


def test_start_waits_until_it_is_done(own):
    for command in "apps", "start pay receipt", "restart --yes", "status", "monitor", "system web":
        assert kxctl(*command.split()) == (3, "", "kxctl: the daemon is not running\n")
    put("/home/platform/html/show_once.html")  # with which nothing is started
    daemon = own().serving()
    short = "--timeout", str(int(PATIENCE / 10))
    assert matches(kxctl("start", "--wait", *short), "3 kxctl: the applications were not started.*")
    put(marker := "/var/run/sockets/marker")
    starting = Popen(["kxctl", "start", "--wait"], stderr=PIPE, text=True)
    assert wait(lambda: content(marker) is None) and daemon.end() == 0
    assert starting.wait() == 3 and "the daemon ended before" in starting.stderr.read()


@pytest.mark.parametrize("command, form", rows(r"""
    kxctl bogus | 2 kxctl: unknown verb 'bogus'; see kxctl --help
    kxctl restart | 2 kxctl: restart: not without --yes when there is no terminal .*; see kxctl restart --help
    kxctl timeinfo '' UTC HUB; kxctl timeinfo '' UTC UNKNOWN | 1 kxctl: UNKNOWN does not overwrite what HUB .*
    kxctl var set A-B x; kxctl var set --force A-B x | 0 .*: 'A-B' is no name of a shell variable; --force .*
    kxctl system call 99 text:={ | 2 .*: 'text:={' holds no JSON value that can be sent; .*
    kxctl apps | 0 NAME +USER .*\npay +pay +4002/4002 +FastCGI +idle +/home/pay/bin/idle 100 .*\nshop\\u001b.*
    kxctl app pay | 0 name +pay\nuser +pay \(4002\)\n(?!.*prompts).*\n  2 +Pay\\u009b2J +/html/pay/x .*
    kxctl start --json none x | 1 \{\n *"errorCode": -1,.*\}\nkxctl: Application none doesn't exist
    kxctl home; kxctl status | 0 no application .*\ndaemon +pid \d+, .*\nconflict +pay: .*\npay +\d+ +idle .*
    kxctl apps >/dev/full | 1 kxctl: cannot write to standard output
    setpriv --reuid guest --clear-groups kxctl apps | 1 kxctl: the system bus does not let this account .*
    DBUS_SYSTEM_BUS_ADDRESS=unix:path=/run/none kxctl apps | 3 kxctl: cannot reach the system bus: .*
"""))
def test_answers(apps, command, form):
    assert matches(run("bash", "-c", command), form)


def test_passes_parameters_and_json(apps):
    assert kxctl("start", "pay", "receipt", "a", "--json") == (0, "pay: started receipt\n", "")
    assert wait(lambda: content("/tmp/pay/x")) == "a --json\n"
    assert kxctl("system", "usb", "--mode", "serial", "--unit-serial")[0] == 0 and "uid=y" in calls()[-1]
    assert "\x9b" not in (text := kxctl("--json", "apps")[1])  # as much to a terminal as ESC [
    pay, shop = json.loads(text)
    assert json.loads(kxctl("app", "pay", "--json")[1]) == pay and len(pay) == 23
    assert (pay["uid"], pay["desktopItems"][0]["title"], shop["name"]) == (4002, "Pay\x9b2J", "shop\x1b[31m")


def test_monitor(apps):
    monitor = Popen(["timeout", str(PATIENCE), "kxctl", "monitor"], text=True, stdout=PIPE, stderr=PIPE)
    assert monitor.stderr.readline() == "kxctl: monitoring, Ctrl-C ends\n"
    kxctl("zone", "set", "Europe/Berlin"), kxctl("start")
    for event in "/Tools  TimeInfoChanged .*Europe/Berlin  MANUAL", ".*  OnTerminate  {}", ".*OnStarted  {}":
        assert re.fullmatch(r"[-\d]+ [:\d.]+  " + event + "\n", monitor.stdout.readline())
    monitor.send_signal(signal.SIGINT)
    assert (monitor.wait(), monitor.stdout.read(), monitor.stderr.read()) == (0, "", "")


def test_on_a_terminal(apps):
    assert "\033[1mNAME" in (text := on_terminal("kxctl apps")[0]) and "/home/p…" in text
    assert max(map(len, re.sub("\033[^m]*m", "", text).splitlines())) == 60
    assert "\033" not in kxctl("apps")[1] + on_terminal("NO_COLOR=1 kxctl apps")[0]
    for command in "restart", "system reboot", "system poweroff":
        out, status = on_terminal("kxctl " + command, "n\n")
        assert status == 1 and re.search(r"\? \[y/N\] .*nothing was done", out, re.S)
    assert on_terminal("kxctl system reboot", "y\n")[1] == 0 and calls().count("reboot") == 1
    assert "?" not in on_terminal("kxctl system poweroff --yes")[0] and calls(1) == ["poweroff"]
    apps.process.send_signal(signal.SIGSTOP)
    out, status = on_terminal("kxctl apps --timeout 3")
    apps.process.send_signal(signal.SIGCONT)
    assert status == 3 and re.search("waiting for the daemon.*did not answer in time", out, re.S)


@pytest.mark.parametrize("conf, problem", rows(r"""
    <prompts>x | error: not well-formed: .*; nothing of the file is read
    <Prompts>x</Prompts> | error: <Prompts>: unknown element; it is not read
    <prompts>res/list<!-- x --></prompts> | error: <prompts>: only its text up to .*: 'res/list'
    <prompts>/etc/x</prompts> | error: <prompts>: File '/etc/x' isn't located in .* Ignored.
    <run_on_boot>bin/no</run_on_boot> | error: <run_on_boot>: program '.*/no' does not exist
    <prompts>res/list</prompts><prompts>res/list</prompts> | warning: <prompts>: given more than once; .*
    <desktop_item icon_position='101'>html/index.html</desktop_item> | warning: .* 1 to 100 .*: 101\)
    <show_on_boot>~/html/index.html</show_on_boot><config_page>html/index.html?page=1</config_page> | ok
"""))
def test_check(conf, problem):
    put("/tmp/pay/app.conf", f"<application>\n{conf}</application>")
    put("/tmp/pay/res/list", mode=0o644), put("/tmp/pay/html/index.html")
    counts = [int(problem.startswith(severity)) for severity in ("error", "warning")]
    result = "/tmp/pay/app.conf:2: {}\npay: errors: {}, warnings: {}".format(problem, *counts)
    assert matches(kxctl("check", "/tmp/pay"), f"{counts[0]} " + ("pay: ok" if problem == "ok" else result))


def test_check_of_all_homes():
    for name, owner in ("pay", 4002), ("shop", 1000):
        install(name, owner, "<show_on_boot>html/x</show_on_boot>", html_x="")
    install("user", 4001), install(long := "n" * 41, 4003, ""), put("/home/pay/bin/x", mode=0o644)
    assert ["{name}/{file}: {severity}: {text}".format(**home, **problem)
            for home in json.loads(kxctl("check", "--json")[1]) for problem in home["problems"]] == [
        f"{long}/: error: the name is longer than 40 characters, so its pages have no address",
        "pay/bin/x: warning: not executable, so it cannot be started",
        "pay/app.conf: error: <show_on_boot> is also set by shop; the default form is shown instead",
        "shop/: warning: owned by 1000:1000, which is no application account (4000 to 4999)",
        "shop/app.conf: error: <show_on_boot> is also set by pay; the default form is shown instead",
        "user/app.conf: warning: No such file or directory; the application has no settings"]


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
    ("kxctl a", "app apps audiopayd"), ("kxctl --json app ", "pay shop"),
    ("kxctl start pay re", "receipt refund"), ("kxctl system usb --mode ", "ethernet serial"),
    ("kxctl check /tmp/ap", "/tmp/application"), ("kxregistry get a:", "b")])
def test_completes(shared, line, offered):
    install("pay", 4002, "", **{"bin_" + name: "" for name in ("receipt", "refund", "re;boot", "re$(id)")})
    install("shop", 4003), put("/tmp/application", "/"), run("kxregistry", "set", "a:b", "1")
    assert run("bash", "-c", COMPLETE, "bash", line) == (0, offered + "\n", "")
