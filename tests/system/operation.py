# A numbered operation of the system server and all that it does: answer, calls, records, files.
import dataclasses
from fnmatch import fnmatchcase
from itertools import zip_longest

from gi.repository import GLib

from kx import answer, calls, content, put, system, wait

RESTARTED = ["OnTerminate", "OnTerminate", "OnStarted"]  # applications stop and start again


@dataclasses.dataclass
class Case:
    name: str
    number: int
    arguments: dict = dataclasses.field(default_factory=dict)
    result: object = 0  # the status, or the whole answer
    calls: list = ()
    log: list = ()  # "*" stands for any text; without the progress (info) unless that is asked for
    before: dict = dataclasses.field(default_factory=dict)
    answers: dict = dataclasses.field(default_factory=dict)
    after: dict = dataclasses.field(default_factory=dict)
    events: list = ()
    progress: bool = False

    @property
    def expected(self):
        result = self.result if isinstance(self.result, dict) else {"return": self.result}
        return {"result": result, "calls": list(self.calls), "events": list(self.events),
                "log": list(self.log), "files": self.after}

    def seen(self, daemon):
        # Does it; \return what is to be compared with what was expected.
        for path, text in self.before.items():
            put(path, text)
        answer(**self.answers)
        called, log = calls()[:0], daemon.log()[:0]
        daemon.events(0)
        result = system(self.number, self.arguments)
        wait(lambda: called.extend(calls()) or len(called) >= len(self.calls))
        wait(lambda: log.extend(filter(self.counts, daemon.log())) or len(log) >= len(self.log))
        log = [wanted if fnmatchcase(record, wanted) else record
               for record, wanted in zip_longest(log, self.log, fillvalue="")]
        return {"result": result, "calls": called, "events": daemon.events(len(self.events)), "log": log,
                "files": {path: content(path) for path in self.after}}

    def counts(self, record):
        return self.progress or not record.startswith("info")


# Values that no argument should have.
HOSTILE = {
    "long": "'" * 1000000, "shell": "'\"`reboot`$(reboot);reboot\n|reboot&%1%s%n\x80", "empty": "",
    "NUL": b"serial\0reboot", "bytes": b"\xff" * 1000000, "list": ["serial", "HTTP"],
    "map": {"mode": {"mode": "x"}}, "variants": GLib.Variant("v", GLib.Variant("v", GLib.Variant("i", 2))),
    "NaN": float("nan"), "true": True,
    "path": GLib.Variant("o", "/System"), "pair": GLib.Variant("(ii)", (1, 2)), "byte": GLib.Variant("y", 50),
    "least": GLib.Variant("x", -2**63), "most": GLib.Variant("t", 2**64 - 1)}
