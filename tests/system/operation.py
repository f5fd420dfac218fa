# A numbered operation of the system server and all that it does: answer, calls, records, files.
import dataclasses
from fnmatch import fnmatchcase
from itertools import zip_longest

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
        calls(), daemon.events(0)
        log = daemon.log()[:0]
        result, called = system(self.number, self.arguments), calls(len(self.calls))
        wait(lambda: log.extend(filter(self.counts, daemon.log())) or len(log) >= len(self.log))
        log = [wanted if fnmatchcase(record, wanted) else record
               for record, wanted in zip_longest(log, self.log, fillvalue="")]
        return {"result": result, "calls": called, "events": daemon.events(len(self.events)), "log": log,
                "files": {path: content(path) for path in self.after}}

    def counts(self, record):
        return self.progress or not record.startswith("info")
