# What every installed program and library has against exploits, as readelf shows it, in the stage KX_STAGE.
import os
import pathlib
import re
import subprocess

import pytest

STAGE = pathlib.Path(os.environ["KX_STAGE"])
REQUIRED = {STAGE / "usr/sbin/kxcore", STAGE / "usr/bin/kxctl", STAGE / "usr/bin/kxregistry"}
# Their checked forms are taken whenever the compiler fortifies, whatever it knows of the sizes.
ALWAYS_CHECKED = r" UND v?(printf|fprintf|sprintf|snprintf|dprintf|asprintf|syslog)(@|$)"


def readelf(file):
    command = "readelf", "--wide", "--file-header", "--segments", "--dynamic", "--dyn-syms", str(file)
    return subprocess.run(command, capture_output=True, text=True).stdout


FILES = {file: text for file in STAGE.rglob("*") if file.suffix != ".a" and file.is_file()
         and not file.is_symlink() and "ELF Header" in (text := readelf(file))}


def test_programs_are_there():
    assert REQUIRED <= FILES.keys()


@pytest.mark.parametrize("file", FILES, ids=lambda file: file.name)
def test_is_hardened(file):
    text = FILES[file]

    def has(pattern):
        return re.search(pattern, text, re.M) is not None
    assert has("Type: +DYN") and (has("FLAGS_1.*PIE") or not has(" INTERP "))  # position-independent
    assert has(" GNU_RELRO ") and has("FLAGS.*NOW") and not has("TEXTREL")  # read-only tables
    assert has(" GNU_STACK .* RW ") and has(" UND __stack_chk_fail(@|$)") and not has("R(UN)?PATH")
    if "KX_FORTIFIED" in os.environ:
        assert not has(ALWAYS_CHECKED) and (file.name != "kxcore" or has(" UND __[a-z]+_chk"))
