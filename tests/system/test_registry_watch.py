# What follows the registry: options of syslog, hub identifier, wake-on-WLAN.
import pytest

from kx import answer, calls, content, natively, owner_and_mode, put, run, wait

HUB_ID, SYSLOG, SECURE = "/etc/platform/sys/hubID", "/etc/sysconfig/syslog", "/sys/kernel/secure/"
TARGET, WAKE = "%platform.syslog.remoteIP:port", "%network.wifi.phy.wakeup_on_magic"
HUB, MODE, PRESENCE = "systemconfig.hubID", "systemconfig.mode", "network.wifi.presence"
PHY = {"iw": {"dev": "phy#1\n\tInterface wlan0\nphy#0\n"}}
LOOK = ["iw dev", "iw phy0 wowlan show"]
ENABLE, DISABLE = ["iw dev", "iw phy0 wowlan enable magic-packet"], ["iw dev", "iw phy0 wowlan disable"]
RESTART, CHANGED, MISSING = ["syslog restart"], "err valueChanged ", "err SetWifiWowlanParam wifi is missing"
REFUSED = CHANGED + '!!!Attempt to set incorrect ip-address or port for logging to remote host:  "'
WRONG = (f"{CHANGED}Incorrect value for {WAKE} key: true. The key will be deleted. "
         "WoWlan feature status will be changed to default.")


def registry(**keys):
    for key, value in keys.items():
        assert run("kxregistry", *(("delete", key) if value is None else ("set", key, value)))[0] == 0


def state(name):
    # What a file or a key of the registry holds, or None.
    missing, value, _ = run("kxregistry", "get", name)
    return content(name) if name[0] == "/" else None if missing else value[:-1]


def options(target):
    return f'SYSLOGD_OPTIONS="{target and " -L -R " + target}"\n'


@pytest.mark.parametrize("key, value, before, answers, called, log, after", [
    *((TARGET, value, {}, {}, RESTART, [], {SYSLOG: options(value)})
      for value in ("192.168.1.10:514", "0.0.0.0:0", "255.249.199.99:99999", "10.0.0.5:0514")),
    # The reset of the key is a change of its own.
    *((TARGET, value, {}, {}, RESTART * 2, [REFUSED], {SYSLOG: options(""), TARGET: ""})
      for value in ("192.168.001.10:514", "256.1.1.1:514", "10.0.0.1:", "10.0.0:514", "10.0.0.1:514 ",
                    "1.0.0.1:514\n", '1.0.0.1:514";reboot', "1a0b0c1:514")),
    *((TARGET, "", before, {}, [], [CHANGED + error], {}) for before, error in (
        ({"/etc/sysconfig": "-> /none"}, "could not create directory /etc/sysconfig :  File exists"),
        ({SYSLOG: "/"}, f"could not open file '{SYSLOG}', Is a directory"),
        ({SYSLOG: "-> /dev/full"}, f"could not write to file '{SYSLOG}', No space left on device"))),
    *((TARGET, value, {SYSLOG: "a longer text than the new one is"}, {"syslog": 1}, RESTART,
       [f"err {function} syslogd restarting returns error: "], {SYSLOG: options("")})
      for value, function in (("", "valueChanged"), (None, "keyDeleted"))),
    *((TARGET, value, {}, {}, [], [], {SYSLOG: None}) for value in ("Error: no store", None)),
    *((HUB, value, {HUB_ID: "older"} | mode, {}, [], [], {HUB_ID: after}) for value, mode, after in (
        ("Hub-7", {}, "Hub-7"), ("", {}, ""), ("7", {MODE: "Apply"}, "older"), ("x Error: y", {}, "older"))),
    (HUB, "7", {HUB_ID: "/"}, {}, [], [CHANGED + f"could not open file '{HUB_ID}', Is a directory"], {}),
    (WAKE, "1", {}, PHY, ENABLE, [], {}), (WAKE, "0", {}, PHY, DISABLE, [], {}),
    (WAKE, None, {}, PHY, ENABLE, [], {}), (WAKE, "1", {}, {}, ["iw dev"], [MISSING], {}),
    (WAKE, "true", {}, PHY, ENABLE, [WRONG], {WAKE: None})])
def test_follows_the_registry(own, key, value, before, answers, called, log, after):
    answer(**PHY)
    old = "old" if key != WAKE else "10"[value == "1"]
    registry(**{key: old, PRESENCE: "1", MODE: before.get(MODE, "APPLY mode")})
    daemon = own().serving()
    calls(), daemon.log()
    for path in before.keys() - {MODE}:
        put(path, before[path])
    answer(**answers)
    registry(**{key: value})
    # Another key, whose effect tells that the first was seen: before it, or in the same event.
    other, marker, more = (TARGET, SYSLOG, RESTART) if key == HUB else (HUB, HUB_ID, [])
    registry(**{other: ""})
    assert wait(lambda: content(marker) is not None) and daemon.serving()
    assert calls(len(called + more)) == called + more
    assert [record[:len(text)] for record, text in zip(daemon.log(), log, strict=True)] == log
    assert {name: state(name) for name in after} == after


@natively
def test_refused_target_reaches_no_file(own):
    daemon = own().serving()
    with daemon.failing("write", "delay_exit=1"):
        registry(**{TARGET: "256.1.1.1:514"})
        assert calls(2) == RESTART * 2
    assert "-R" not in content("/tmp/strace")
    assert (owner_and_mode("/etc/sysconfig"), owner_and_mode(SYSLOG)) == ("0:0 755", "0:0 644")


OFF = "WoWLAN is disabled.\n"
ON, REKEY, PATTERN = (f"WoWLAN is enabled:\n * wake up on {what}\n"
                      for what in ("magic packet", "GTK rekeying failure", "a pattern"))


@pytest.mark.parametrize("presence, wake, shown, subtype, called, log", [
    (None, "1", OFF, 3, [], []), ("0", "1", OFF, 3, [], []), ("1", None, ON, 3, ENABLE, []),
    ("1", "1", ON, 3, LOOK, []), ("1", "0", OFF, 3, LOOK, []), ("1", "1", REKEY, 3, LOOK, []),
    ("1", "1", OFF, 3, LOOK + ENABLE, []), ("1", "0", ON, 3, LOOK + DISABLE, []),
    ("1", "1", ON, 4, LOOK * 2, []), ("1", "1", PATTERN, 4, LOOK * 2, []), ("1", "0", OFF, 4, LOOK, []),
    ("1", "1", REKEY, 4, LOOK * 2 + DISABLE + ENABLE, []),
    ("1", "1", None, 3, ["iw dev"] * 2, ["err CheckWifiWowlanStatus wifi is missing", MISSING]),
    ("1", None, 234, 3, ENABLE, ["err SetWifiWowlanParam Wowlan feature couldn't be set"]),
])
def test_aligns_wake_on_wlan_when_it_starts(own, presence, wake, shown, subtype, called, log):
    registry(**{key: value for key, value in ((PRESENCE, presence), (WAKE, wake)) if value})
    if shown:
        answer(iw=PHY["iw"] | {ENABLE[1][3:] if shown == 234 else LOOK[1][3:]: shown})
    put(SECURE + "type", "1\n"), put(SECURE + "subtype", f"{subtype}\n")
    daemon = own().serving()
    assert calls() == called and daemon.log() == log
