# The registry stand-in through its tool and its file: what is stored, told and lost.
import os
import signal
import subprocess

import pytest

from kx import PATIENCE, call, content, natively, owner_and_mode, put, run

FILE, TOOL = "/var/lib/kxregistry/registry.json", "kxregistry: "


def registry(*arguments, **options):
    return run("kxregistry", *arguments, **options)


# Commands, and their status and output.
@pytest.mark.parametrize("row", r"""
    get a -> 1 kxregistry: no key 'a'
    set a -> 2 kxregistry: set: needs KEY VALUE; see kxregistry set --help
    set '' x -> 2 kxregistry: set: a key must not be empty; see kxregistry set --help
    get -x -> 2 kxregistry: get: unknown option 'x'; see kxregistry get --help
    set a 1; set a 2; get a -> 0 2
    set -- -x ''; get -- -x -> 0 |
    set x -y; get x -> 0 -y
    set b ü€; set a x:=y; list -> 0 a=x:=y|b=ü€
    set a $'x\ny\e[2J'; list -> 0 a=x\u000ay\u001b[2J
    set a 1; delete a; delete a; list -> 0
""".strip().splitlines())
def test_commands(row):
    commands, expected = row.strip().split(" -> ")
    status, out, err = run("bash", "-ec", "kxregistry " + commands.replace("; ", "; kxregistry "))
    assert f"{status} {out}{err}".replace("\n", "|").strip("| ") == expected.strip("| ")


def test_file_is_json_for_root_alone():
    registry("set", "a", "1")
    assert content(FILE) == '{\n    "a": "1"\n}\n' and owner_and_mode(FILE) == "0:0 600"
    assert registry("get", "a", account="pay")[::2] == (1, f"{TOOL}{FILE}: Permission denied\n")


def test_no_change_of_simultaneous_writers_is_lost():
    script = "for i in $(seq 40); do kxregistry set $0.$i $i || exit; done"
    writers = [subprocess.Popen(["bash", "-c", script, f"w{number}"]) for number in range(4)]
    assert [writer.wait() for writer in writers] == [0] * 4
    assert registry("list")[1].count("\nw") == 159


@natively
def test_killed_writer_leaves_old_or_new():
    values, killed = ["x" * 90000], 0
    registry("set", "a", values[0])
    for call_ in "write", "fchmod", "fdatasync", "linkat", "rename":
        values.append(call_ + "y" * 80000)
        strace = "strace", "-qqfo", "/dev/null", "-e", f"inject={call_}:signal=KILL:when=1"
        killed += run(*strace, "kxregistry", "set", "a", values[-1])[0] == -9
        assert registry("get", "a")[1].strip() in values
    assert killed >= 4 and registry("set", "a", "1")[0] == 0 and registry("get", "a")[1] == "1\n"


# As a full disk does, the limit takes a part of the text and refuses the rest.
def test_full_disk_leaves_the_old_store():
    registry("set", "a", "1")
    limit = "trap '' XFSZ; ulimit -f 8; kxregistry set b " + "x" * 10000
    assert run("bash", "-c", limit) == (1, "", f"{TOOL}cannot write {FILE}; is the disk full?\n")
    assert registry("list")[1] == "a=1\n"
    assert sorted(os.listdir(os.path.dirname(FILE))) == ["lock", "registry.json"]


@pytest.mark.parametrize("text, reason", [("{", "unterminated object"), ("[]", "not a JSON object")])
def test_store_that_is_no_object_is_left_alone(shared, text, reason):
    put(FILE, text)
    for command in "get a", "set a 1", "delete a", "list", "watch":
        assert registry(*command.split()) == (1, "", f"{TOOL}{FILE}: {reason}\n")
    assert call("Tools.ResetTimeInfoSource") == 0 and content(FILE) == text


@pytest.mark.parametrize("keys, told", [
    ([], ["a=1", "b=1", "", "b deleted", "b=2", "a deleted"]),
    (["b", "c"], ["", "b=1", "", "b deleted", "b=2", ""])])
def test_watch(keys, told):
    registry("set", "a", "0")
    watcher = subprocess.Popen(["timeout", str(PATIENCE), "kxregistry", "watch", *keys], text=True,
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    assert watcher.stderr.readline() == f"{TOOL}watching, Ctrl-C ends\n"
    for command, line in zip(("set a 1", "set b 1", "set b 1", "delete b", "set b 2", "delete a"), told):
        registry(*command.split())
        assert not line or watcher.stdout.readline() == line + "\n"
    watcher.send_signal(signal.SIGINT)
    assert (watcher.wait(), watcher.stdout.read()) == (0, "")
