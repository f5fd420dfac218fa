# Time, zone and their source; platform variables; the audio-payment switch.
import datetime
import os
import re
import struct
import time
import zoneinfo

import pytest

from kx import PATIENCE, Daemon, call, content, natively, owner_and_mode, put, remove, run, wait

ZONES, LINK, BERLIN = "/usr/share/zoneinfo/", "/etc/localtime", "Europe/Berlin"
OFFSET, HARDWARE_CLOCK = "/etc/time_offset", "/sys/class/rtc/rtc0/since_epoch"
SOURCE = "%platform.timeInfoSource"
CONF, SCRIPT = "/etc/rc.d/rc.platform.conf", "/etc/platform/99-audiopayd"
SOURCES = ["HOST", "MANUAL", "HUB", "UNKNOWN"]
START, TEN, NOON = 1700000000, "2024-05-17 10:00:00", "2024-05-17 13:45:00"  # START: 2023-11-14 22:13:20 UTC


def set_clock(seconds):
    with open("/tmp/clock", "r+b" if os.path.exists("/tmp/clock") else "wb") as file:  # never shorter
        file.write(struct.pack("q", seconds - int(time.time())))


def shows(seconds):
    ahead, = struct.unpack("q", open("/tmp/clock", "rb").read())
    return 0 <= int(time.time()) + ahead - seconds < PATIENCE


@pytest.fixture(scope="module")
def with_clock():
    set_clock(START)
    daemon = Daemon(env={"LD_PRELOAD": os.environ["KX_CLOCK_LIBRARY"]})
    assert daemon.serving()
    yield daemon
    assert daemon.end() == 0


@pytest.fixture
def clock(with_clock):
    set_clock(START)
    with_clock.log(), with_clock.heard(0)
    return with_clock


def announced(daemon, seconds, zone, source, log=()):
    # One signal, at that time or some seconds later; the source is stored.
    (name, (at, *rest)), = daemon.heard(1)
    late = datetime.datetime.fromisoformat(at + "+00:00").timestamp() - seconds
    assert (name, *rest, stored()) == ("TimeInfoChanged", zone, source, source) and 0 <= late < PATIENCE
    return daemon.log() == list(log)


def unchanged(daemon, log=()):
    seen = shows(START), content(OFFSET), stored(), daemon.heard(0), daemon.log()
    return seen == (True, None, None, [], [*log])


def stored():
    return run("kxregistry", "get", SOURCE)[1].strip() or None


@pytest.mark.parametrize("zone, text, seconds", [
    ("UTC", NOON, 1715953500), ("UTC", "2024-05-17", 1715984000), ("UTC", "12:30:00", 1699965000),
    ("Asia/Tokyo", "12:30:00", 1700019000), (BERLIN, "2024-07-01 12:00:00", 1719828000),
    (BERLIN, "2024-01-15 12:00:00", 1705316400), ("UTC", "2024-02-30", 1709331200),
    ("UTC", "2024-5-17 13:45:00x", 1715953500)])
def test_clock_is_set_from_text(clock, zone, text, seconds):
    put(LINK, "-> " + ZONES + zone)
    assert call("Tools.SetSystemTime", "s", text) == 0 and shows(seconds)
    assert announced(clock, seconds, zone, "MANUAL")


@pytest.mark.parametrize("text, result", [
    *((NOON.ljust(length, "0")[:length], -1) for length in (0, 7, 9, 11, 18, 20, 21, 1000000)),
    ("2024-5-7", -1), ("25:00:00", -1), ("abcdefghij", -1), ("12:30:0é", -1), ("１２:30:00", -1),
    ("1969-12-31 23:59:59", -1), ("1960-01-01", -2), ("9999-12-31", -2)])
def test_bad_time_is_refused(clock, text, result):
    assert call("Tools.SetSystemTime", "s", text) == result and unchanged(clock)


def test_time_that_cannot_be_broken_down(clock):
    set_clock(10 ** 18)
    assert call("Tools.SetSystemTime", "s", NOON) == -4 and shows(10 ** 18) and stored() is None


@pytest.mark.parametrize("hardware, offset", [
    ("1715953000\n", "500"), ("1715954000\n", "-500"), ("x\n", "1715953500"), (None, "1715953500"),
    (None, "-> /dev/full"), (None, "/")])
def test_offset_of_the_hardware_clock(clock, hardware, offset):
    fails = offset in ("-> /dev/full", "/")
    put(HARDWARE_CLOCK, hardware), put(OFFSET, offset if fails else "a longer text than any offset")
    assert call("Tools.SetSystemTime", "s", NOON) == (-3 if fails else 0) and shows(1715953500)
    if fails:
        assert clock.heard(0) == [] and stored() is None
    else:
        assert 0 <= int(content(OFFSET)) - int(offset) < PATIENCE


def test_no_offset_is_an_empty_file(clock):
    def left():
        put(HARDWARE_CLOCK, "1715953500")
        assert call("Tools.SetSystemTime", "s", NOON) == 0
        return content(OFFSET)
    assert wait(lambda: left() == "")  # unless a second has passed meanwhile


@pytest.mark.parametrize("before, zone, after", [
    (None, BERLIN, BERLIN), (ZONES + BERLIN, "Asia/Tokyo", "Asia/Tokyo"), ("/nowhere", BERLIN, BERLIN),
    ("file", BERLIN, BERLIN), (None, "UTC", "Etc/UTC"), (None, "Asia/../Europe/Berlin", BERLIN),
    (ZONES + BERLIN, "", None), ("/nowhere", "", None), ("file", "", None), (None, "", None)])
def test_zone_link(clock, before, zone, after):
    put(LINK, before and ("-> " + before if before[0] == "/" else before))
    assert call("Tools.SetTimeZone", "s", zone) == 0 and content(LINK) == (after and "-> " + ZONES + after)
    assert announced(clock, START, zone, "MANUAL")


def test_same_zone_changes_nothing_and_records_have_its_time(clock):
    for zone in "Asia/Tokyo", BERLIN, BERLIN:
        run("kxregistry", "set", SOURCE, "HUB"), clock.heard(0)
        assert call("Tools.SetTimeZone", "s", zone) == 0
        call("System.SystemCall", "ia{sv}", 42, {}), clock.log()
        hour = datetime.datetime.now(zoneinfo.ZoneInfo(zone)).strftime("%b %e %H:")
        assert content("/var/log/messages").splitlines()[-2].startswith(hour)
    assert (stored(), clock.heard(0)) == ("HUB", [])


@pytest.mark.parametrize("zone", [
    "../../../etc/passwd", "Europe/../../../../etc", ".", "No/Such", "localtime", "UTC\n", "Köln", "%1",
    "../../../etc/" + "a" * 300, "../zoneinfo-other", "a" * 100000])
def test_zone_outside_is_refused(clock, zone):
    assert call("Tools.SetTimeZone", "s", zone) == 1 and content(LINK) is None
    assert (shows(START), stored(), clock.heard(0)) == (True, None, [])
    record, = clock.log()
    quoted = re.escape(zone.replace("\n", "\\n"))
    # A long record is cut by the system's log.
    assert re.fullmatch(f'err SetTimeZone Time zone file "{quoted}" is not located in {ZONES}', record) \
        or len(zone) > 1000 and record.startswith('err SetTimeZone Time zone file "aaa')


def test_zone_link_that_cannot_be_removed(clock):
    put(LINK, "/")
    assert call("Tools.SetTimeZone", "s", "UTC") == 1
    assert unchanged(clock, ['err SetTimeZone Unable to remove "/etc/localtime"'])


@natively
def test_zone_link_that_cannot_be_made(clock):
    with clock.failing("symlink,symlinkat", "error=EROFS"):
        assert call("Tools.SetTimeZone", "s", BERLIN) == 1
    assert unchanged(clock, [f'err SetTimeZone Error creating time zone symlink to "{ZONES}{BERLIN}"'])


@pytest.mark.parametrize("target, zone, error", [
    ("/opt/zoneinfo/posix/UTC", "posix/UTC", None),
    (None, "", "readlink() failed:  No such file or directory"),
    ("/etc/passwd", "", "Unexpected time zone symlink: /etc/passwd"),
    ("/" + "a" * 400, "", "Unexpected time zone symlink: /" + "a" * 254)])
def test_zone_is_read_from_the_link(clock, target, zone, error):
    put(LINK, target and "-> " + target)
    assert call("Tools.SetSystemTime", "s", "2024-05-17 13:45:00") == 0
    assert announced(clock, 1715953500, zone, "MANUAL", [f"err GetTimeZone {error}"] if error else [])


@pytest.mark.parametrize("current", [*SOURCES, None, "host"])
def test_sources_have_precedence(clock, current):
    for source in SOURCES:
        run("kxregistry", *(["set", SOURCE, current] if current else ["delete", SOURCE]))
        remove(LINK), clock.heard(0)
        allowed = current not in SOURCES or SOURCES.index(source) <= SOURCES.index(current)
        assert call("Tools.SetTimeInfo", "sss", "", "UTC", source) == (0 if allowed else 1)
        if allowed:
            assert announced(clock, START, "UTC", source)
        else:
            text = f"Unable to set time info: '{source}' cannot overwrite time set by '{current}'"
            assert clock.log() == [f'err SetTimeInfo "{text}"']
            assert (stored(), clock.heard(0), content(LINK)) == (current, [], None)


def test_source_is_reset(clock):
    run("kxregistry", "set", SOURCE, "HOST")
    assert call("Tools.ResetTimeInfoSource") == 0 and stored() == "UNKNOWN" and clock.events(0) == []


@pytest.mark.parametrize("utc, zone, source, seconds", [
    (TEN, BERLIN, "HOST", 1715940000), (TEN, "", "HUB", 1715940000), ("", BERLIN, "HUB", START),
    ("", "", "MANUAL", START), ("", "", "", START)])
def test_time_info_is_set_together(clock, utc, zone, source, seconds):
    put(LINK, "-> " + ZONES + "Asia/Tokyo")
    assert call("Tools.SetTimeInfo", "sss", utc, zone, source) == 0
    assert shows(seconds) and content(LINK) == ("-> " + ZONES + zone if zone else None)
    assert announced(clock, seconds, zone, source or "UNKNOWN")


NO_SOURCE = "Invalid infoSource '%s', allowed values: HOST, MANUAL, HUB, UNKNOWN"


@pytest.mark.parametrize("utc, zone, source, text", [
    ("", "UTC", "", NO_SOURCE % ""), ("12:30:00", "UTC", "", NO_SOURCE % ""),
    ("", "UTC", "host", NO_SOURCE % "host"), ("", "", "%2", NO_SOURCE % "%2"),
    ("%1 %2", "UTC", "HOST", "Unable to set utcTime '%1 %2'"),
    ("", "%1", "HOST", "Unable to set timeZone '%1'")])
def test_time_info_that_cannot_be_set(clock, utc, zone, source, text):
    assert call("Tools.SetTimeInfo", "sss", utc, zone, source) == 1
    assert clock.log()[-1] == f'err SetTimeInfo "{text}"' and unchanged(clock)


@pytest.mark.parametrize("before, name, value, after", [
    (b"", "MSG", "hello world", b'export MSG="hello world"\n'),
    (b"# settings\n", "A", "", b'# settings\nexport A=""\n'),
    (b"X", "A", "1", b'Xexport A="1"\n'),
    (b'export V_MAX="10"\nexport V="3"\n', "V", "5", b'export V="5"\nexport V="3"\n="3"\n'),
    (b'export A="12345"\n', "A", "1", b'export A="1"\n45"\n'),
    (b'export A="1"\nexport B="2"\n', "A", "12345", b'export A="12345"\nexport B="2"\n'),
    (b'export a="1"\n', "A", "1", b'export a="1"\nexport A="1"\n'),
    (b"# A is good\n", "A", "1", b'export A="1"\n'),
    (b"X\nY\n", "", "1", b'export ="1"\nY\n'),
    (b'export VOLUME="3"\n', "V?[A-L]*E", "1", b'export V?[A-L]*E="1"\n'),
    (b'export VOLUME="3"\n', "V?[A-K]*E", "1", b'export VOLUME="3"\nexport V?[A-K]*E="1"\n'),
    (b"", "%2", "x", b'export %2="x"\n'),
    (b'X=\xc3\xa4\xff\nexport A="1"\n', "A", "2", b'X=\xc3\xa4\xff\nexport A="2"\n'),
    (b"X=\xc3\xa4\n", "ä", "1", b'X=\xc3\xa4\nexport \xc3\xa4="1"\n'),
    (b"A\n", "A", "Größe €", 'export A="Größe €"\n'.encode()),
    (b'X\r\nexport A="1"\n', "A", "2", b'X\nexport A="2"\n\n'),
    (b'X\0YZ\nexport A="1"\n', "A", "22", b'Xexport A="22"\n1"\n')])
def test_variable_is_saved(clock, before, name, value, after):
    put(CONF, before)
    assert call("Tools.SaveVariableValue", "ss", name, value) == 0 and open(CONF, "rb").read() == after


def test_refused_values(clock):
    put(CONF, 'export A="1"\n')
    for character in "-`~!@#$%^&*()_”+=|:;<>«»,.?/{}'\"[]\\":
        assert call("Tools.SaveVariableValue", "ss", "A", f"a{character}b") == -1
    assert content(CONF) == 'export A="1"\n'
    for nothing in None, "/":
        put(CONF, nothing)
        assert call("Tools.SaveVariableValue", "ss", "A", "1") == -1
    assert os.path.isdir(CONF) and clock.log() == []


def test_audio_payment_switch(clock):
    put(SCRIPT, "#!/bin/sh\n")
    for on, mode in (True, "755"), (False, "644"):
        assert call("Tools.EnableAudiopayd", "b", on) is None
        assert owner_and_mode(SCRIPT) == "0:0 " + mode and call("Tools.IsAudiopaydEnabled") == on
    remove(SCRIPT)
    call("Tools.EnableAudiopayd", "b", True)
    assert clock.log() == ["err EnableAudiopayd No such file or directory"]
    assert call("Tools.IsAudiopaydEnabled") is False
