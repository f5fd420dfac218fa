# The private root (scripts/sandbox), with the stage KX_STAGE: what goes in and out, and what does not.
# Nothing here would hurt the machine, should the isolation be broken.
import os
import pathlib
import random
import subprocess
import time

import pytest

SOURCE = pathlib.Path(__file__).parents[2]
SANDBOX = str(SOURCE / "scripts/sandbox")
CALLS = "/run/standins/calls"


def run(*arguments, **options):
    done = subprocess.run([SANDBOX, *arguments], stdout=subprocess.PIPE, text=True, **options)
    return done.returncode, done.stdout


def wait(condition):
    end = time.monotonic() + 10 * float(os.environ.get("KX_TIME_FACTOR", 1))
    while not (value := condition()) and time.monotonic() < end:
        time.sleep(0.05)
    return value


@pytest.mark.parametrize("command, output", [
    *((command + " 2>/dev/null; echo $?", "1") for command in (
        'date -s "$(date -Is)" >/dev/null', "busybox reboot -f", "touch /usr/bin/true",
        f"touch {SOURCE}/README.md")),
    ("mount -t sysfs sysfs /sys 2>/dev/null || ls -A /sys", ""), ("cat /proc/1/comm", "bash"),
    ("(echo 1 >/proc/sys/vm/drop_caches) 2>/dev/null || echo refused", "refused"),
    ("ip -o link show up | cut -d: -f2", "lo"), ("find /home /root -mindepth 1", ""), ("echo $OUTSIDE", ""),
    ("cd /proc/self/fd && echo *", "0 1 2 3"),  # the last is the listing's own
    (f"for i in $(seq 50); do modprobe -a one 'two\nthree' & done; wait; uniq -c {CALLS}",
     "50 modprobe -a one two three"),
])
def test_inside(command, output):
    with open("/dev/null") as file:
        text = run("--no-bus", "--stage", os.environ["KX_STAGE"], "--bind", str(SOURCE), "sh", "-c", command,
                   pass_fds=[file.fileno()], env=os.environ | {"OUTSIDE": "seen"})[1]
    assert text.strip() == output


@pytest.mark.parametrize("command, status, output", [
    (["sh", "-c", "exit 7"], 7, ""), (["sh", "-c", "kill $$"], 143, ""), (["start_bus"], 127, ""),
    (["cat"], 0, "text"), (["--mount", "/etc/passwd", "/usr", "true"], 125, "")])
def test_status_and_output_pass_through(command, status, output):
    assert run("--no-bus", *command, input="text") == (status, output)


def test_directories_elsewhere(tmp_path):
    (tmp_path / "file").write_text("text")
    script = "cat /mnt/a/file; touch /mnt/a/new 2>/dev/null || echo refused; touch /mnt/b/new"
    given = "--mount", "/mnt/a", str(tmp_path), "--mount-rw", "/mnt/b", str(tmp_path)
    assert run("--no-bus", *given, "sh", "-c", script) == (0, "textrefused\n")
    assert (tmp_path / "new").exists()


@pytest.mark.parametrize("unshare", ["exit 1", 'while [ "$1" != env ]; do shift; done; exec "$@"'])
def test_runs_nothing_without_namespaces(tmp_path, unshare):
    (tmp_path / "unshare").write_text(f"#!/bin/sh\n{unshare}\n")
    (tmp_path / "unshare").chmod(0o755)
    path = {**os.environ, "PATH": f"{tmp_path}:{os.environ['PATH']}"}
    assert run("--bind-rw", str(tmp_path), "touch", str(tmp_path / "ran"), env=path)[0] == 125
    assert not (tmp_path / "ran").exists()


@pytest.mark.parametrize("signal, status", [("TERM", 143), ("KILL", -9)])
def test_leaves_nothing(signal, status):
    seconds = str(random.randrange(10 ** 5, 10 ** 6))

    def running():
        return subprocess.run(["pgrep", "-fx", "sleep " + seconds], stdout=subprocess.PIPE).stdout
    first = subprocess.Popen([SANDBOX, "sh", "-c", f"touch /tmp/file; exec sleep {seconds}"])
    assert wait(running) and run("test", "!", "-e", "/tmp/file")[0] == 0 and first.poll() is None
    subprocess.run(["kill", "-" + signal, str(first.pid)], check=True)
    assert first.wait() == status and wait(lambda: not running())
    assert "private-root" not in pathlib.Path("/proc/self/mounts").read_text()
