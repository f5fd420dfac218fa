"""scripts/run as a person uses it, outside of the private root."""
import os
import pathlib
import re
import subprocess

import pexpect
import pytest

TOP = pathlib.Path(__file__).parents[2]
RUN = [TOP / "scripts/run", "--preset", os.environ.get("KX_PRESET", "desk")]
PROMPT = ":~# "


def boot(*options):
    terminal = pexpect.spawn(str(RUN[0]), [*RUN[1:], *options], encoding="utf8", timeout=120, dimensions=(50, 150))
    terminal.expect(PROMPT)
    return terminal


def type_line(terminal, keys, answer=""):
    terminal.sendline(keys)
    terminal.expect(answer)
    terminal.expect(PROMPT)


@pytest.mark.parametrize("kind, says", [([], "started for hello in /home/hello as app5"),
                                        (["--fastcgi"], "listening on /var/run/sockets/hello/fcgi")])
def test_the_page_on_writing_an_application(tmp_path, kind, says):
    page = (TOP / "docs/write-an-application.md").read_text().replace("/tmp/hello", str(tmp_path / "hello"))
    commands = re.findall(r"^    (.*?)(?: +#.*)?$", page, re.M)
    assert commands[0].startswith("scripts/run --new") and commands[2].startswith("scripts/run --app")
    subprocess.run([TOP / commands[0].split()[0], *commands[0].split()[1:], *kind], check=True)
    terminal = boot(*commands[2].split()[1:])
    answers = {"busybox": "<h1>Hello me</h1>", "desk shot": "build/pictures/hello.png", "log": "hello: " + says}
    for command in commands[3:]:
        type_line(terminal, command, next((text for start, text in answers.items() if command.startswith(start)), ""))
    type_line(terminal, "desk url", "/cgi-bin/hello/hello.who=me")
    (tmp_path / "hello/html/new.txt").write_text("")
    type_line(terminal, "log -f | grep -m1 'hello: changed'", "installed again")
    type_line(terminal, "logger -t hello spoken; log", "hello: spoken")
    terminal.sendeof()
    terminal.expect(pexpect.EOF)


def test_shell_joins_and_two_run_at_once():
    one, two = boot(), boot()
    one.send("kxctl moni\t")
    one.expect("kxctl monitor ")
    one.send("never run\x03")
    type_line(one, "echo fir''st >/tmp/mine; cat /tmp/mine", "first")
    type_line(one, "\x1b[A", "first")
    for terminal, status in ((one, 0), (two, 1)):
        join = [*RUN, "--terminal", str(terminal.pid), "--shell", "cat", "/tmp/mine"]
        assert subprocess.run(join, stdin=subprocess.DEVNULL).returncode == status
    type_line(one, "set-a-clock 2>/dev/null; date -s 2030-01-01", "cannot set date")
    one.sendeof()
    one.expect(pexpect.EOF)
    type_line(two, "kxctl apps", "pay")
    type_line(two, "exit", "")


@pytest.mark.parametrize("words", ["--bogus", "--size 3", "--app /none", "--app /", "--new /tmp"])
def test_what_makes_no_sense_is_refused(words):
    done = subprocess.run([*RUN, *words.split()], capture_output=True, text=True)
    assert done.returncode == 2 and done.stderr.startswith("run: ")
