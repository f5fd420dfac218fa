"""The restart of the terminal, with a web server in different moods."""
import contextlib
import http.server
import signal
import socket
import threading
import time

from kx import SLEEP, call, calls, install, processes, wait

SCHEDULED = "info Restart Terminal restart is scheduled"
IDLE = "/home/shop/bin/idle"


def unanswered(application, result):
    return f'err SendStopToApp curl  "http://localhost/cgi-bin/{application}/stop" returned  {result}'


@contextlib.contextmanager
def web_server():
    """Knows the stop program of every application but mute; yields what it was asked."""
    asked = []

    class Handler(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            asked.append(self.path)
            self.send_response(404 if "mute" in self.path else 200)
            self.end_headers()
            self.wfile.write(b"answer\n")
    server = http.server.HTTPServer(("127.0.0.1", 80), Handler)
    threading.Thread(target=server.serve_forever).start()
    yield asked
    server.shutdown()
    server.server_close()


def test_asks_every_application(own):
    install("shop", 4003, "<run_on_boot>bin/idle 60</run_on_boot>", bin_idle=SLEEP)
    # Ends in the two seconds that applications have, which are not cut short by that.
    install("pay", 4002, "<run_on_boot>bin/idle 1</run_on_boot>", bin_idle=SLEEP)
    install("mute", 4005)
    daemon = own()
    assert daemon.serving() and wait(lambda: processes(IDLE))
    with web_server() as asked:
        begin = time.monotonic()
        assert call("Applications.Restart", "s", "tomorrow") is None
        assert time.monotonic() - begin < 1  # before it begins
        assert wait(calls) == ["reboot"] and 2 < time.monotonic() - begin
    assert asked == [f"/cgi-bin/{name}/stop" for name in ("mute", "pay", "shop")]
    assert not processes(IDLE) and daemon.events(1) == ["OnTerminate"] and daemon.log() == [SCHEDULED]
    assert daemon.serving() and daemon.end() == 0 and daemon.process.stdout.read() == 3 * "answer\n"


def test_ends_after_the_restart(own):
    install("pay", 4002), install("shop", 4003)
    daemon = own()
    assert daemon.serving()
    call("Applications.Restart", "s", "")
    log = []
    assert wait(lambda: log.extend(daemon.log()) or len(log) == 3)
    assert log == [SCHEDULED, unanswered("pay", 7), unanswered("shop", 7)] and calls() == []
    # While it is under way; this must not be lost.
    assert daemon.end(signal.SIGTERM) == 0 and calls() == ["reboot"]


def test_silent_web_server(own):
    install("pay", 4002)
    daemon = own()
    assert daemon.serving()
    with socket.create_server(("127.0.0.1", 80)):  # connections are made, never answered
        begin = time.monotonic()
        call("Applications.Restart", "s", "")
        assert wait(calls) == ["reboot"] and 6.9 < time.monotonic() - begin
    assert daemon.log() == [SCHEDULED, unanswered("pay", 28)]
