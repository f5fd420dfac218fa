# The numbered system calls but that for USB.
import time

import pytest

from kx import answer, calls, natively, put, system
from operation import RESTARTED, Case

KERNELS, POWEROFF = "/etc/platform/settings/L2KernelsVersion", "/tmp/kxcore_poweroff"
PIDOF, RESTART = ["pidof sredd", "pidof sredd2", "pidof sredd3"], ["34-sredd restart"]
KEYPAD = "/sys/kernel/keypad/kbdreset"
IIO = "/sys/bus/iio/devices/iio:device"
BOARD = {"0/name": "accelerometer\n", "2/name": "4003b000.adc\n", "2/in_voltage8_raw": "2048\n",
         "2/in_voltage_scale": "0.805664\n", "4/name": "400cc000.dac\n", "4/out_voltage_raw": "7\n"}
INVALID = "err DoSetL2KernelsVersion Invalid L2KernelsVersion:*"
MEASURED = {"return": 0, "voltage": 1.6499998779296876}
WEB = "/etc/lighttpd/"
CONF, CACHING, BUFFER = (f"{WEB}{name}.conf" for name in ("lighttpd", "caching", "buffer-resp"))
IMAGE = {CONF + ".HTTP": "http", CONF + ".HTTPS": "https", WEB + "enable_cache.conf": "cache",
         WEB + "disable_cache.conf": "", CONF: f"-> {CONF}.HTTP", CACHING: f"-> {WEB}enable_cache.conf"}
HTTPS = {CONF: f"-> {CONF}.HTTPS"}
LIGHTTPD, BROWSER = "lighthttpd restart", "35-browser restart"


def battery(name, changes, result, left):
    before = {IIO + path: text for path, text in (BOARD | changes).items()}
    return Case("battery: " + name, 104, {}, result, before=before, after={IIO + "4/out_voltage_raw": left})


def stored(number, running, called):
    return Case(f"kernels: {number!r} set, {running} runs", 102, {"number": number}, 0, called,
                answers={"pidof": {running: 0}}, before={KERNELS: "1\n"}, after={KERNELS: f"{number}\n"})


# Call 97: links of the web server's configuration, its restart and the browser's.
def accepted(name, arguments, after, *called):
    return Case("web server: " + name, 97, arguments, {"return": 0, "response": "OK"}, [LIGHTTPD, *called],
                before=IMAGE, after=IMAGE | after)


def refused(name, arguments, text, before={}, after={}):
    return Case("web server: " + name, 97, arguments, {"return": -1, "response": text}, before=IMAGE | before,
                after=IMAGE | after, log=["err DoLighttpdRestart " + text.strip()])


@pytest.mark.parametrize("case", [
    Case("reboot", 1, {}, 200, ["reboot"], answers={"reboot": 200}),
    *(Case(f"power off, {before}", 101, {}, 3, ["poweroff"], ["notice DoPoweroff Powering Off...."],
           answers={"poweroff": 3}, before={POWEROFF: before}, after={POWEROFF: "", "/tmp/elsewhere": None})
      for before in (None, "-> /tmp/elsewhere")),
    Case("keypad", 105, before={KEYPAD: ""}, after={KEYPAD: "1\n"}),
    *(Case(f"unknown {number}", number, {}, -1, [],
           [f"notice SystemCall Unexpected method Id for system call: {number}"])
      for number in (-1, 0, 2, 42, 95, 106)),
    Case("console on", 100, {"command": "enable"}, 0, ["console enable"], events=RESTARTED),
    Case("console fails", 100, {"command": "disable"}, 3, ["console disable"], answers={"console": 3},
         log=["err DoConsoleStatusChange Error changing console status:*"], events=RESTARTED),
    *(Case(f"console {text!r}", 100, {"command": text}, -1)
      for text in ("on", "Enable", "enable ", "enable;reboot", "")),
    Case("log", 99, {"text": "%1 %s"}, 0, log=['info DoLogData "%1 %s"'], progress=True),
    *(Case(f"log {text!r}", 99, {"text": text}, -1, progress=True) for text in ("", ["1", "2"])),

    *(Case(f"kernels: {running} runs", 103, {}, number, PIDOF[:asked], answers={"pidof": {running: 0}})
      for running, number, asked in (("sredd", 1, 1), ("sredd2", 2, 2), ("sredd3", 3, 3), ("none", 0, 3))),
    stored("2", "sredd2", PIDOF[:2]), stored("3", "sredd", PIDOF[:1] + RESTART),
    stored("02", "sredd", PIDOF[:1] + RESTART), stored(1, "none", PIDOF + RESTART),
    Case("kernels: no restart", 102, {"number": "3"}, -1, PIDOF[:1] + RESTART, after={KERNELS: "3\n"},
         answers={"pidof": {"sredd": 0}, "34_sredd": 1},
         log=["err DoSetL2KernelsVersion sredd restarting returns error: *"]),
    Case("kernels: not written", 102, {"number": "3"}, -1, before={KERNELS: "/"},
         log=[f"err DoSetL2KernelsVersion Write to {KERNELS} error: *"]),
    *(Case(f"kernels: {text!r} refused", 102, {"number": text}, -1, [], [INVALID],
           before={KERNELS: "1\n"}, after={KERNELS: "1\n"})
      for text in ("", "0", "-1", "0x2", "2;reboot", "$(reboot)", " 2", "+2", "2\n", "\xa02", ["2", "3"])),
    Case("kernels: too many", 102, {"number": "4"}, -1, [], [INVALID[:-1] + " 4"]),

    battery("measured", {}, MEASURED, "0\n"),
    battery("later device", {"1/name": "4003b000.adc", "2/name": "4003b000.adc2\n"}, MEASURED, "0\n"),
    battery("text behind", {"2/in_voltage8_raw": " 2048 counts\n", "2/in_voltage_scale": "0.805664mV\n"},
            MEASURED, "0\n"),
    battery("sixth device", {"2/name": None, "5/name": "4003b000.adc\n"}, -1, "7\n"),
    *(battery(f"no {path}", {path: None}, -1, "7\n") for path in ("2/name", "4/name")),
    *(battery(f"{path}: {text}", {path: text}, -1, "3300\n")
      for path in ("2/in_voltage8_raw", "2/in_voltage_scale") for text in (None, "?\n")),
    battery("circuit that is not there", {"4/out_voltage_raw": "/"}, -1, None),

    accepted("nothing asked for", {"newConf": "HTTPS"}, {}),
    accepted("HTTPS", {"newconf": "HTTPS"}, HTTPS),
    accepted("all", {"newconf": "HTTP", "caching": "off", "buffer-resp": "on"}, {
        CACHING: f"-> {WEB}disable_cache.conf", BUFFER: f"-> {WEB}buffer-resp-on.conf"}, BROWSER),
    accepted("off", {"buffer-resp": "off"}, {BUFFER: f"-> {WEB}buffer-resp-off.conf"}),
    refused("protocol", {"newconf": "https%1%s"}, "Invalid protocol: https%1%s"),
    refused("buffering", {"buffer-resp": ""}, "Invalid buffer-resp value: "),
    refused("link before", {"newconf": "HTTPS", "caching": "ON"}, "Invalid caching status: ON", {}, HTTPS),
    refused("dangling link", {"newconf": "HTTPS"}, "Symlink failed: File exists",
            {CONF: "-> /none"}, {CONF: "-> /none"}),
    refused("folder in its place", {"newconf": "HTTPS"}, "Unlink failed: Is a directory",
            {CONF: "/"}, {CONF: None}),
], ids=lambda case: case.name)
def test_system_call(shared, case):
    assert case.seen(shared) == case.expected


@natively
def test_battery_circuit_that_does_not_open_again(shared):
    case = battery("", {}, MEASURED, "3300\n")
    with shared.failing("openat", "error=EIO:when=9"):  # five names, on, two readings, off
        assert case.seen(shared) == case.expected


def test_hardware_test_gets_its_page(shared):
    answer(hwtest=7)  # nobody waits for it
    # In this order: what one call leaves behind must not reach the next.
    shell, longest = "http://localhost/a b?c=$(reboot)", "x" * 100000
    for url, page in ((shell, shell), (None, None), ("", ""), (b"x", None), (longest, longest)):
        assert system(98, {} if url is None else {"url": url}) == {"return": 0}
        assert calls(1) == ["hwtest -f" + ("" if page is None else f" OPEN_ON_EXIT_URL={page}")]


def test_each_accepted_call_restarts_later(shared):
    system(97, {"newconf": "?"}), system(97), system(97)
    began = time.monotonic()
    assert calls() == [] and calls(2) == [LIGHTTPD, LIGHTTPD] and time.monotonic() - began >= 0.49


def test_browser_follows_caching_once(shared):
    # In this order: whether the browser restarts depends on what came before.
    failed = "err OnRestartLighttpdTimer /etc/{} restart returned  {}"
    for arguments, web, browser, called, log in (
            ({"caching": "off"}, 1, 0, [LIGHTTPD], [failed.format("rc.d/init.d/lighthttpd", 1)]),
            ({}, 0, 2, [LIGHTTPD, BROWSER], [failed.format("platform/35-browser", 2)]),
            ({}, 0, 0, [LIGHTTPD], []), ({"caching": "off"}, 0, 0, [LIGHTTPD, BROWSER], []),
            ({"caching": "on"}, 0, 0, [LIGHTTPD], [])):
        put(CACHING, None)
        case = Case("", 97, arguments, {"return": 0, "response": "OK"}, called, log,
                    answers={"lighthttpd": web, "35_browser": browser})
        assert case.seen(shared) == case.expected
