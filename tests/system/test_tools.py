# Time, zone and their source; platform variables; the audio-payment switch.
import calendar
import os
import time

import pytest

from kx import PATIENCE, call, content, natively, owner_and_mode, put, remove, run

ZONES, LINK, BERLIN = "/usr/share/zoneinfo/", "/etc/localtime", "Europe/Berlin"
OFFSET, HARDWARE_CLOCK = "/etc/time_offset", "/sys/class/rtc/rtc0/since_epoch"
CONF, SCRIPT = "/etc/rc.d/rc.platform.conf", "/etc/platform/99-audiopayd"
SOURCE, SOURCES = "%platform.timeInfoSource", ["HOST", "MANUAL", "HUB", "UNKNOWN"]
ENVIRONMENT = {"LD_PRELOAD": os.environ["KX_CLOCK_LIBRARY"]}  # of the daemon
START, TEN, NOON = 1700000000, "2024-05-17 10:00:00", "2024-05-17 13:45:00"  # START: 2023-11-14 22:13:20 UTC


def set_clock(seconds):
    with open("/tmp/clock", "r+b" if os.path.exists("/tmp/clock") else "wb") as file:  # never shorter
        file.write((seconds - int(time.time())).to_bytes(8, "little", signed=True))


def shows(seconds):
    ahead = int.from_bytes(open("/tmp/clock", "rb").read(), "little", signed=True)
    return 0 <= int(time.time()) + ahead - seconds < PATIENCE


set_clock(START)  # the library wants the file when the daemon starts


@pytest.fixture
def clock(shared):
    set_clock(START)
    shared.log(), shared.heard(0)
    return shared


def announced(daemon, seconds, zone, source, log=()):
    # One signal, at that time or some seconds later; the source is stored.
    (name, (at, *rest)), = daemon.heard(1)
    late = calendar.timegm(time.strptime(at, "%Y-%m-%d %H:%M:%S")) - seconds
    assert (name, *rest, stored()) == ("TimeInfoChanged", zone, source, source) and 0 <= late < PATIENCE
    return daemon.log() == list(log)


def unchanged(daemon, log=()):
    seen = content(OFFSET), stored(), daemon.heard(0), daemon.log()
    return shows(START) and seen == (None, None, [], [*log])


def stored():
    return run("kxregistry", "get", SOURCE)[1].strip() or None


@pytest.mark.parametrize("zone, text, seconds", [
    ("UTC", "2024-05-17", 1715984000), ("Asia/Tokyo", "12:30:00", 1700019000),
    ("UTC", "2024-02-30", 1709331200), (BERLIN, "2024-7-01 12:00:00x", 1719828000)])
def test_clock_is_set_from_text(clock, zone, text, seconds):
    put(LINK, "-> " + ZONES + zone)
    assert call("Tools.SetSystemTime", "s", text) == 0 and shows(seconds)
    assert announced(clock, seconds, zone, "MANUAL")


def test_bad_time_is_refused(clock):
    lengths = [NOON.ljust(length, "0")[:length] for length in (0, 7, 9, 11, 18, 20, 21, 1000000)]
    for text in (*lengths, "2024-5-7", "25:00:00", "abcdefghij", "12:30:0é", "１２:30:00",
                 "1969-12-31 23:59:59"):
        assert call("Tools.SetSystemTime", "s", text) == -1 and unchanged(clock)
    for text in "1960-01-01", "9999-12-31":
        assert call("Tools.SetSystemTime", "s", text) == -2 and unchanged(clock)


@pytest.mark.parametrize("hardware, offset", [
    ("1715953000", 500), ("1715954000\n", -500), ("1715953500\n", 0), ("x", 1715953500), (None, 1715953500)])
def test_offset_of_the_hardware_clock(clock, hardware, offset):
    put(HARDWARE_CLOCK, hardware), put(OFFSET, "a longer text than any offset")
    assert call("Tools.SetSystemTime", "s", NOON) == 0 and shows(1715953500)
    stored_offset = content(OFFSET)  # no offset is an empty file
    assert stored_offset != "0" and 0 <= int(stored_offset or 0) - offset < PATIENCE


def test_time_that_cannot_be_stored(clock):
    late = 10 ** 18  # cannot be broken down
    for place, before, after, result in (
            ("/", START, 1715953500, -3), ("-> /dev/full", START, 1715953500, -3), (None, late, late, -4)):
        set_clock(before), put(OFFSET, place)
        assert (call("Tools.SetSystemTime", "s", NOON), clock.heard(0), stored()) == (result, [], None)
        assert shows(after)


@pytest.mark.parametrize("before, zone, after", [
    (None, "Asia/../Europe/Berlin", BERLIN), ("/nowhere", BERLIN, BERLIN), ("file", "UTC", "Etc/UTC"),
    (ZONES + BERLIN, "", None), ("file", "", None), (None, "", None)])
def test_zone_link(clock, before, zone, after):
    put(LINK, before and ("-> " + before if before[0] == "/" else before))
    assert call("Tools.SetTimeZone", "s", zone) == 0 and content(LINK) == (after and "-> " + ZONES + after)
    assert announced(clock, START, zone, "MANUAL")


def test_same_zone_changes_nothing_and_records_have_its_time(clock):
    for zone in "Asia/Tokyo", BERLIN, BERLIN:
        run("kxregistry", "set", SOURCE, "HUB"), clock.heard(0)
        assert call("Tools.SetTimeZone", "s", zone) == 0
        call("System.SystemCall", "ia{sv}", 42, {}), clock.log()
        hour = run("env", "TZ=" + zone, "date", "+%b %e %H:")[1].strip()
        assert content("/var/log/messages").splitlines()[-2].startswith(hour)
    assert (stored(), clock.heard(0)) == ("HUB", [])


def test_zone_outside_is_refused(clock):
    for zone in ("../../../etc/passwd", "Europe/../../../../etc", ".", "No/Such", "localtime", " UTC",
                 "Köln", "%1", "../../../etc/" + "a" * 300, "../zoneinfo-other"):
        assert call("Tools.SetTimeZone", "s", zone) == 1 and content(LINK) is None
        assert unchanged(clock, [f'err SetTimeZone Time zone file "{zone}" is not located in {ZONES}'])
    put(LINK, "/")
    assert call("Tools.SetTimeZone", "s", "UTC") == 1
    assert unchanged(clock, ['err SetTimeZone Unable to remove "/etc/localtime"'])


@natively
def test_zone_link_that_cannot_be_made(clock):
    with clock.failing("symlink,symlinkat", "error=EROFS"):
        assert call("Tools.SetTimeZone", "s", BERLIN) == 1
    assert unchanged(clock, [f'err SetTimeZone Error creating time zone symlink to "{ZONES}{BERLIN}"'])


@pytest.mark.parametrize("target, zone, log", [
    ("/opt/zoneinfo/posix/UTC", "posix/UTC", []),
    (None, "", ["err GetTimeZone readlink() failed:  No such file or directory"]),
    ("/" + "a" * 400, "", ["err GetTimeZone Unexpected time zone symlink: /" + "a" * 254])])
def test_zone_is_read_from_the_link(clock, target, zone, log):
    put(LINK, target and "-> " + target)
    assert call("Tools.SetSystemTime", "s", NOON) == 0
    assert announced(clock, 1715953500, zone, "MANUAL", log)


@pytest.mark.parametrize("current", [*SOURCES, None, "host"])
def test_sources_have_precedence(clock, current):
    for source in SOURCES:
        run("kxregistry", *(["set", SOURCE, current] if current else ["delete", SOURCE]))
        remove(LINK), clock.heard(0)
        result = call("Tools.SetTimeInfo", "sss", "", "UTC", source)
        if current not in SOURCES or SOURCES.index(source) <= SOURCES.index(current):
            assert result == 0 and announced(clock, START, "UTC", source)
        else:
            text = f"Unable to set time info: '{source}' cannot overwrite time set by '{current}'"
            assert clock.log() == [f'err SetTimeInfo "{text}"']
            assert (result, stored(), clock.heard(0), content(LINK)) == (1, current, [], None)


@pytest.mark.parametrize("utc, zone, source, seconds", [
    (TEN, BERLIN, "HOST", 1715940000), (TEN, "", "HUB", 1715940000), ("", BERLIN, "HUB", START),
    ("", "", "", START)])
def test_time_info_is_set_together_and_its_source_reset(clock, utc, zone, source, seconds):
    put(LINK, "-> " + ZONES + "Asia/Tokyo")
    assert call("Tools.SetTimeInfo", "sss", utc, zone, source) == 0
    assert shows(seconds) and content(LINK) == ("-> " + ZONES + zone if zone else None)
    assert announced(clock, seconds, zone, source or "UNKNOWN")
    assert call("Tools.ResetTimeInfoSource") == 0 and stored() == "UNKNOWN" and clock.heard(0) == []


NO_SOURCE = "Invalid infoSource '{}', allowed values: HOST, MANUAL, HUB, UNKNOWN"


@pytest.mark.parametrize("utc, zone, source, text", [
    ("", "UTC", "", NO_SOURCE), ("12:30:00", "UTC", "", NO_SOURCE), ("", "", "host", NO_SOURCE),
    ("", "UTC", "%2", NO_SOURCE), ("%1 %2", "UTC", "HOST", "Unable to set utcTime '%1 %2'"),
    ("", "%1", "HOST", "Unable to set timeZone '%1'")])
def test_time_info_that_cannot_be_set(clock, utc, zone, source, text):
    assert call("Tools.SetTimeInfo", "sss", utc, zone, source) == 1
    assert clock.log()[-1] == f'err SetTimeInfo "{text.format(source)}"' and unchanged(clock)


@pytest.mark.parametrize("before, name, value, after", [
    (b"", "%2", "hello world", b'export %2="hello world"\n'), (b"X", "A", "", b'Xexport A=""\n'),
    (b'export V_MAX="10"\nexport V="3"\n', "V", "5", b'export V="5"\nexport V="3"\n="3"\n'),
    (b'export A="1"\nexport B="2"\n', "A", "12345", b'export A="12345"\nexport B="2"\n'),
    (b'export a="1"\n', "A", "1", b'export a="1"\nexport A="1"\n'),
    (b"# A is good\n", "A", "1", b'export A="1"\n'), (b"X\nY\n", "", "1", b'export ="1"\nY\n'),
    (b'export VOLUME="3"\n', "V?[A-L]*E", "1", b'export V?[A-L]*E="1"\n'),
    (b'export VOLUME="3"\n', "V?[A-K]*E", "1", b'export VOLUME="3"\nexport V?[A-K]*E="1"\n'),
    (b'X=\xc3\xa4\xff\nexport A="1"\n', "A", "2", b'X=\xc3\xa4\xff\nexport A="2"\n'),
    (b'X\r\nexport A="1"\n', "A", "2", b'X\nexport A="2"\n\n'),
    (b'X\0YZ\nexport A="1"\n', "A", "22", b'Xexport A="22"\n1"\n')])
def test_variable_is_saved(clock, before, name, value, after):
    put(CONF, before)
    assert call("Tools.SaveVariableValue", "ss", name, value) == 0 and open(CONF, "rb").read() == after


def test_refused_values(clock):
    refused = [('A="1"\n', f"a{character}b") for character in "-`~!@#$%^&*()_”+=|:;<>«»,.?/{}'\"[]\\"]
    for before, value in *refused, (None, "1"), ("/", "1"):
        put(CONF, before)
        assert call("Tools.SaveVariableValue", "ss", "A", value) == -1
        assert content(CONF) == (None if before == "/" else before) and clock.log() == []


def test_audio_payment_switch(clock):
    put(SCRIPT, "#!/bin/sh\n")
    for on, mode in (True, "0:0 755"), (False, "0:0 644"):
        call("Tools.EnableAudiopayd", "b", on)
        assert (owner_and_mode(SCRIPT), call("Tools.IsAudiopaydEnabled")) == (mode, on)
    remove(SCRIPT), call("Tools.EnableAudiopayd", "b", True)
    assert clock.log() == ["err EnableAudiopayd No such file or directory"]
    assert call("Tools.IsAudiopaydEnabled") is False
