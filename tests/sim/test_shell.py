# scripts/run as a person uses it, outside of the private root.
import os
import pathlib
import re
import subprocess

import pexpect
import pytest

TOP = pathlib.Path(__file__).parents[2]
RUN = [str(TOP / "scripts/run"), "--preset", os.environ.get("KX_PRESET", "desk")]


def boot(*options):
    terminal = pexpect.spawn(RUN[0], [*RUN[1:], *options], encoding="utf8", timeout=60, dimensions=(50, 150))
    terminal.expect(":~# ")
    return terminal


def enter(terminal, keys, answer=""):
    terminal.sendline(keys)
    terminal.expect(answer + "(?s:.*):~# ")


def leave(terminal):
    terminal.sendeof()
    terminal.expect(pexpect.EOF)
    assert terminal.wait() == 0


@pytest.mark.parametrize("kind, says", [([], "started for hello in /home/hello as app5"),
                                        (["--fastcgi"], "listening on /var/run/sockets/hello/fcgi")])
def test_the_page_on_writing_an_application(tmp_path, kind, says):
    page = (TOP / "docs/write-an-application.md").read_text().replace("/tmp/hello", str(tmp_path / "hello"))
    new, app, *commands = re.findall(r"^    (.*?)(?: +#.*)?$", page, re.M)
    subprocess.run([TOP / new.split()[0], *new.split()[1:], *kind], check=True)
    terminal = boot(*app.split()[1:])
    answers = {"busybox wget": "<h1>Hello me</h1>", "desk shot": "/hello.png", "log": "hello: " + says}
    for command in commands:
        enter(terminal, command, answers.get(" ".join(command.split()[:2]), ""))
    enter(terminal, "desk url", "cgi-bin/hello/hello.who=me")
    (tmp_path / "hello/html/new.txt").write_text("")
    enter(terminal, "log -f | grep -m1 'hello: changed'", "installed again")
    leave(terminal)


def test_shells_on_two_terminals():
    one, two = boot(), boot()
    enter(one, "kxctl moni\t--help", "kxctl monitor --help")
    enter(one, "echo fir''st >/tmp/mine; cat /tmp/mine", "first")
    enter(one, "\x1b[A", "first")
    for terminal, status in (one, 0), (two, 1):
        join = [*RUN, "--terminal", str(terminal.pid), "--shell", "cat", "/tmp/mine"]
        assert subprocess.run(join, stdin=subprocess.DEVNULL).returncode == status
    leave(one)
    enter(two, "kxctl apps", "/home/pay/bin/payd")
    leave(two)


@pytest.mark.parametrize("words", ["--bogus", "--size 3", "--app /none", "--app /", "--new /tmp"])
def test_what_makes_no_sense_is_refused(words):
    done = subprocess.run([*RUN, *words.split()], capture_output=True, text=True)
    assert done.returncode == 2 and done.stderr.startswith("run: ")
