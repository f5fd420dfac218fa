# The restart of the terminal, with a web server in different moods.
import socket
import subprocess
import time

import pytest

from kx import PATIENCE, SLEEP, call, calls, install, processes, put, remove, wait

SCHEDULED = "info Restart Terminal restart is scheduled"
UNANSWERED = 'err SendStopToApp curl  "http://localhost/cgi-bin/%s/stop" returned  %d'
PAGES = "/tmp/pages"


# The web server's root is a folder; ends it, and returns the addresses that it was asked for.
@pytest.fixture
def web_server():
    server = subprocess.Popen(["python3", "-u", "-m", "http.server", "80", "-b", "127.0.0.1", "-d", PAGES],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    assert "Serving" in server.stdout.readline()

    def end():
        server.terminate()
        return [line.split('"')[1] for line in server.communicate()[1].splitlines() if "GET" in line]
    yield end
    end()
    remove(PAGES)


def test_asks_every_application(own, web_server):
    install("shop", 4003, "<run_on_boot>bin/idle 60</run_on_boot>", bin_idle=SLEEP)
    # Ends in the two seconds that applications have, which are not cut short by that.
    install("pay", 4002, "<run_on_boot>bin/idle 1</run_on_boot>", bin_idle=SLEEP)
    put(PAGES + "/cgi-bin/pay/stop", "answer\n"), put(PAGES + "/cgi-bin/shop/stop", "answer\n")
    daemon = own().serving()
    assert wait(lambda: processes("/home/shop/bin/idle"))
    install("mute", 4005)  # new, and without a stop program, which is no error
    begin = time.monotonic()
    assert call("Applications.Restart", "s", "tomorrow", seconds=PATIENCE / 10) is None
    assert wait(calls) == ["reboot"] and 2 < time.monotonic() - begin
    assert web_server() == [f"GET /cgi-bin/{name}/stop HTTP/1.1" for name in ("mute", "pay", "shop")]
    assert daemon.events(1) == ["OnTerminate"] and not processes("/home/shop/bin/idle")
    assert daemon.log() == [SCHEDULED] and daemon.serving().end() == 0
    assert daemon.process.stdout.read().count("answer\n") == 2  # other options of the request are not set


def test_ends_after_the_restart(own):
    install("pay", 4002), install("shop", 4003)
    daemon, log = own().serving(), []
    assert call("Applications.Restart", "s", "") is None
    assert wait(lambda: log.extend(daemon.log()) or len(log) == 3) and calls() == []
    assert log == [SCHEDULED, UNANSWERED % ("pay", 7), UNANSWERED % ("shop", 7)]
    assert daemon.end() == 0 and calls() == ["reboot"]  # asked to while the restart is under way


def test_silent_web_server(own):
    install("pay", 4002)
    daemon = own().serving()
    with socket.create_server(("127.0.0.1", 80)):  # connections are made, never answered
        begin = time.monotonic()
        call("Applications.Restart", "s", "")
        assert calls(1) == ["reboot"] and 6.9 < time.monotonic() - begin
    assert daemon.log() == [SCHEDULED, UNANSWERED % ("pay", 28)]
