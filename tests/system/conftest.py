import os

import pytest

import kx


def pytest_make_parametrize_id(val):
    return repr(val)[:20]


# What a sanitizer or valgrind has to say.
def reports():
    return [text for name in os.listdir(kx.REPORTS) if (text := kx.content(kx.REPORTS + name))]


def finish(daemon):
    assert (daemon.end(), reports()) == (0, [])


# One daemon for a file of tests, with what the file adds to its environment; ends as asked after the last.
@pytest.fixture(scope="module")
def shared(request):
    daemon = kx.Daemon(env=getattr(request.module, "ENVIRONMENT", None)).serving()
    yield daemon
    finish(daemon)


# Starts a daemon of the test's own, with what the test has prepared.
@pytest.fixture
def own():
    daemons = []

    def start(*arguments, **options):
        daemons.append(kx.Daemon(*arguments, **options))
        return daemons[-1]
    yield start
    for daemon in daemons:
        if daemon.process.poll() is None:
            finish(daemon)


# Every test finds a terminal without applications, and programs that succeed and say nothing.
@pytest.fixture(autouse=True)
def terminal(request):
    kx.remove("/home", "/var/lib/kxregistry", "/tmp/kxcore_poweroff", *(f"/etc/{name}" for name in (
        "platform/usb_gadget", "platform/usbphy0", "platform/sys", "platform/settings", "lighttpd",
        "sysconfig", "localtime", "time_offset")), *(f"/sys/{name}" for name in os.listdir("/sys")))
    for path in "/home", "/etc/platform/sys", "/etc/platform/settings", "/etc/lighttpd":
        os.makedirs(path)
    kx.answer(), kx.calls(), kx.called.clear()
    request.node.log_begins = os.path.getsize(kx.LOG)
    yield
    assert reports() == []


# For launched programs too, whatever account they have.
def pytest_sessionstart():
    os.makedirs(kx.REPORTS, exist_ok=True)
    os.chmod(kx.REPORTS, 0o1777)


# A failing test tells what the daemon has logged meanwhile, which programs were called, what was reported.
@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item):
    report = (yield).get_result()
    if report.failed and hasattr(item, "log_begins"):
        kx.calls()
        with open(kx.LOG, errors="replace") as log:
            log.seek(item.log_begins)
            report.sections.append(("records of the daemon", "\n".join(kx.records(log.read()))))
        report.sections += [("commands called", "\n".join(kx.called)), ("reports", "\n".join(reports()))]


def pytest_sessionfinish(session, exitstatus):
    if exitstatus == pytest.ExitCode.NO_TESTS_COLLECTED:  # none of this file was asked for
        session.exitstatus = 0
