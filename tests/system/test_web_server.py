# System call 97: links of the web server's configuration, its restart and the browser's.
import time

import pytest

from kx import calls, put, system
from operation import Case

FOLDER = "/etc/lighttpd/"
CONF, CACHING, BUFFER = (f"{FOLDER}{name}.conf" for name in ("lighttpd", "caching", "buffer-resp"))
IMAGE = {CONF + ".HTTP": "http", CONF + ".HTTPS": "https", FOLDER + "enable_cache.conf": "cache",
         FOLDER + "disable_cache.conf": "", CONF: f"-> {CONF}.HTTP", CACHING: f"-> {FOLDER}enable_cache.conf"}
HTTPS = {CONF: f"-> {CONF}.HTTPS"}
WEB, BROWSER = "lighthttpd restart", "35-browser restart"


def accepted(name, arguments, after, *called):
    return Case(name, 97, arguments, {"return": 0, "response": "OK"}, [WEB, *called],
                before=IMAGE, after=IMAGE | after)


def refused(name, arguments, text, before={}, after={}):
    return Case(name, 97, arguments, {"return": -1, "response": text}, before=IMAGE | before,
                after=IMAGE | after, log=["err DoLighttpdRestart " + text.strip()])


@pytest.mark.parametrize("case", [
    accepted("nothing asked for", {"newConf": "HTTPS"}, {}),
    accepted("HTTPS", {"newconf": "HTTPS"}, HTTPS),
    accepted("all", {"newconf": "HTTP", "caching": "off", "buffer-resp": "on"}, {
        CACHING: f"-> {FOLDER}disable_cache.conf", BUFFER: f"-> {FOLDER}buffer-resp-on.conf"}, BROWSER),
    accepted("off", {"buffer-resp": "off"}, {BUFFER: f"-> {FOLDER}buffer-resp-off.conf"}),
    refused("protocol", {"newconf": "https%1%s"}, "Invalid protocol: https%1%s"),
    refused("buffering", {"buffer-resp": ""}, "Invalid buffer-resp value: "),
    refused("link before", {"newconf": "HTTPS", "caching": "ON"}, "Invalid caching status: ON", {}, HTTPS),
    refused("dangling link", {"newconf": "HTTPS"}, "Symlink failed: File exists",
            {CONF: "-> /none"}, {CONF: "-> /none"}),
    refused("folder in its place", {"newconf": "HTTPS"}, "Unlink failed: Is a directory",
            {CONF: "/"}, {CONF: None}),
], ids=lambda case: case.name)
def test_links(shared, case):
    assert case.seen(shared) == case.expected


def test_each_accepted_call_restarts_later(shared):
    system(97, {"newconf": "?"}), system(97), system(97)
    began = time.monotonic()
    assert calls() == [] and calls(2) == [WEB, WEB] and time.monotonic() - began >= 0.49


def test_browser_follows_caching_once(shared):
    # In this order: whether the browser restarts depends on what came before.
    failed = "err OnRestartLighttpdTimer /etc/{} restart returned  {}"
    for arguments, web, browser, called, log in (
            ({"caching": "off"}, 1, 0, [WEB], [failed.format("rc.d/init.d/lighthttpd", 1)]),
            ({}, 0, 2, [WEB, BROWSER], [failed.format("platform/35-browser", 2)]), ({}, 0, 0, [WEB], []),
            ({"caching": "off"}, 0, 0, [WEB, BROWSER], []), ({"caching": "on"}, 0, 0, [WEB], [])):
        put(CACHING, None)
        case = Case("", 97, arguments, {"return": 0, "response": "OK"}, called, log,
                    answers={"lighthttpd": web, "35_browser": browser})
        assert case.seen(shared) == case.expected
