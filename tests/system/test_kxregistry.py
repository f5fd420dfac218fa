# The registry stand-in through its tool and its file: what is stored, told and lost.
from subprocess import PIPE, Popen

import pytest

from kx import PATIENCE, call, content, natively, owner_and_mode, put, rows, run

FILE, TOOL = "/var/lib/kxregistry/registry.json", "kxregistry: "


def registry(*arguments, **options):
    return run("kxregistry", *arguments, **options)


@pytest.mark.parametrize("commands, expected", rows(r"""
    get a                                    | 1 kxregistry: no key 'a'
    set '' x | 2 kxregistry: set: a key must not be empty; see kxregistry set --help
    set -- -x ''; get -- -x; set x -y; get x | 0 ¶-y
    set b $'ü\ny\e[2J'; set a 1; set a :=y; set c 1; delete c; delete c; list | 0 a=:=y¶b=ü\u000ay\u001b[2J
"""))
def test_commands(commands, expected):
    status, out, err = run("bash", "-ec", "kxregistry " + commands.replace("; ", "; kxregistry "))
    assert f"{status} {out}{err}".rstrip("\n") == expected.replace("¶", "\n")


# As a full disk does, the limit takes a part of the text and refuses the rest.
def test_file_is_for_root_alone_and_survives_a_full_disk():
    registry("set", "a", "1")
    assert registry("get", "a", account="pay")[::2] == (1, f"{TOOL}{FILE}: Permission denied\n")
    found = run("bash", "-c", f"trap '' XFSZ; ulimit -f 8; kxregistry set b {'x' * 9999} || ls /var/lib/kx*")
    assert found[1:] == ("lock\nregistry.json\n", f"{TOOL}cannot write {FILE}; is the disk full?\n")
    assert content(FILE) == '{\n    "a": "1"\n}\n' and owner_and_mode(FILE) == "0:0 600"


def test_no_change_of_simultaneous_writers_is_lost():
    writer = "for i in $(seq 40); do kxregistry set $w.$i 1 || echo failed; done"
    writers = f"for w in a b c d; do ({writer}) & done; wait; kxregistry list | wc -l"
    assert run("bash", "-c", writers) == (0, "160\n", "")


@natively
def test_killed_writer_leaves_old_or_new():
    registry("set", "a", old := "x" * 90000)
    for moment in "write", "fchmod", "fdatasync", "linkat", "rename":
        strace = "strace", "-qqfo", "/dev/null", "-e", f"inject={moment}:signal=KILL:when=1"
        assert run(*strace, "kxregistry", "set", "a", new := moment + "y" * 80000)[0] == -9
        assert registry("get", "a")[1] in (old + "\n", new + "\n")


@pytest.mark.parametrize("text, reason", [("{", "unterminated object"), ("[]", "not a JSON object")])
def test_store_that_is_no_object_is_left_alone(shared, text, reason):
    put(FILE, text)
    for command in "get a", "set a 1", "delete a", "list", "watch":
        assert registry(*command.split()) == (1, "", f"{TOOL}{FILE}: {reason}\n")
    assert call("Tools.ResetTimeInfoSource") == 0 and content(FILE) == text


@pytest.mark.parametrize("keys, told", [
    ("", "a=1,b=1,,b deleted,a deleted"), ("b c", ",b=1,,b deleted,")])
def test_watch(keys, told):
    watch = Popen(f"timeout {PATIENCE} kxregistry watch {keys}".split(), text=True, stdout=PIPE, stderr=PIPE)
    assert watch.stderr.readline() == f"{TOOL}watching, Ctrl-C ends\n"
    for command, line in zip(("set a 1", "set b 1", "set b 1", "delete b", "delete a"), told.split(",")):
        registry(*command.split())
        assert not line or watch.stdout.readline() == line + "\n"
    watch.terminate()
    assert (watch.wait(), watch.stdout.read()) == (0, "")
