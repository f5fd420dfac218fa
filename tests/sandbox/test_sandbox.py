# The scripts: what each says of itself; what goes in and out of the private root (scripts/sandbox) with the
# stage KX_STAGE, and what does not. Nothing here would hurt the machine, should the isolation be broken.
import os
import pathlib
import subprocess

import pytest

SOURCE = pathlib.Path(__file__).parents[2]
SANDBOX = str(SOURCE / "scripts/sandbox")


def run(*arguments, **options):
    done = subprocess.run([SANDBOX, *arguments], stdout=subprocess.PIPE, text=True, **options)
    return done.returncode, done.stdout


@pytest.mark.parametrize("command, output", [
    *((command + " 2>/dev/null; echo $?", "1") for command in (
        'date -s "$(date -Is)" >/dev/null', "busybox reboot -f", "touch /usr/bin/true",
        f"touch {SOURCE}/README.md")),
    ("mount -t sysfs sysfs /sys 2>/dev/null || ls -A /sys", ""), ("cat /proc/1/comm", "bash"),
    ("(echo 1 >/proc/sys/vm/drop_caches) 2>/dev/null || echo refused", "refused"),
    ("ip -o link show up | cut -d: -f2", "lo"), ("find /home /root -mindepth 1", ""), ("echo $OUTSIDE", ""),
    ("cd /proc/self/fd && echo *", "0 1 2 3"),  # the last is the listing's own
    ("for i in $(seq 50); do modprobe -a one 'two\nthree' & done; wait; uniq -c /run/standins/calls",
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


# Also where nothing of a developer's is set.
@pytest.mark.parametrize("script", [path.name for path in SOURCE.glob("scripts/*") if path.is_file()])
def test_help(script):
    command = "env", "-i", "PATH=/usr/bin:/bin", f"scripts/{script}", "--help"
    done = subprocess.run(command, cwd=SOURCE, stdout=subprocess.PIPE, text=True, timeout=10)
    assert done.returncode == 0 and done.stdout.startswith(f"Usage: scripts/{script}")


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


@pytest.mark.parametrize("signal, status", [(15, 143), (9, -9)])
def test_leaves_nothing(signal, status):
    command = [SANDBOX, "sh", "-c", "touch /tmp/file; echo ready; exec sleep 900"]
    first = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
    assert first.stdout.readline() == "ready\n" and run("test", "!", "-e", "/tmp/file")[0] == 0
    first.send_signal(signal)
    # The pipe ends when the last process that holds it does.
    assert first.communicate(timeout=30)[0] == "" and first.returncode == status
    assert "private-root" not in pathlib.Path("/proc/self/mounts").read_text()
