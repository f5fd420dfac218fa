# What Enumerate says of an application: its identity, the elements of app.conf, and what is no app.conf.
import os
import time

import pytest

from kx import PATIENCE, SERVICE, bus, call, install, put, remove

CONF, HTML, HOME = "/home/pay/app.conf", "/home/pay/html/", "/home/pay/"
TEXTS = ["resources", "prompts", "homeButton", "cardRanges", "BINRanges", "whiteList", "whiteListSignature",
         "whiteListSignaturePath", "showOnBoot", "runOnBoot", "webResources", "cacertPath"]
DEFAULTS = dict.fromkeys(TEXTS, "") | {
    "name": "pay", "homeDir": "/home/pay", "tmpDir": "/tmp/pay", "userName": "pay", "groupName": "shop",
    "uid": 4002, "gid": 4003, "fastCgi": True, "cgiBinDefault": False, "desktopItems": [], "configPages": []}


# What the record has that one without app.conf has not, and the records.
def settings(daemon, conf):
    install("pay", 4002, group=4003)
    put(CONF, conf)
    daemon.log()
    record, = call("Applications.Enumerate")
    assert record.keys() == DEFAULTS.keys()
    return {key: value for key, value in record.items() if value != DEFAULTS[key]}, daemon.log()


# Records, to be called with what they name.
IGNORED = """err NormalizeFilePath "File '{}' isn't located in '/home/pay' directory. Ignored.\"""".format
OUTSIDE = """err operator() "File '{}' is not in '{}' directory\"""".format
NO_FORM = 'err ParseXMLRootNode "No form defined for <{}/> (pay)"'.format
NO_NUMBER = """err ParseXMLRootNode "'icon_position' should be an integer (actual value: '{}') \"""".format


def items(form, icon="", position=0, title=""):
    return [{"form": form, "iconPath": icon, "iconPosition": position, "title": title}]


@pytest.mark.parametrize("xml, expected, log", [
    ("<resources> res/r.xml </resources><web_resources>./web</web_resources><ca_cert>~/ca.pem</ca_cert>"
     "<show_on_boot>html/f.html</show_on_boot><home_button>html/index.html</home_button>",
     {"resources": HOME + "res/r.xml", "webResources": HOME + "web", "cacertPath": HOME + "ca.pem",
      "showOnBoot": HTML + "f.html", "homeButton": "pay/index.html"}, []),
    ("<prompts>a</prompts><prompts>a//b/../p%1</prompts><prompts/><web_resources>a</web_resources>"
     "<web_resources> </web_resources><resources>/home/pay/../other/x</resources>",
     {"prompts": HOME + "a/p%1", "resources": "/home/other/x"}, []),
    ("<prompts><![CDATA[a&b]]></prompts><resources><!--c-->x</resources><ca_cert>/home/pay2/x</ca_cert>"
     "<web_resources><b>x</b></web_resources><Web_resources>a</Web_resources><u><prompts>b</prompts></u>",
     {"prompts": HOME + "a&b", "resources": HOME + "c", "cacertPath": "/home/pay2/x"}, []),
    ("<home_button>cgi-bin/x</home_button><ca_cert>/c</ca_cert><prompts>/p</prompts>"
     "<show_on_boot>/s</show_on_boot><web_resources>/w</web_resources><resources>/r</resources>", {},
     [*map(IGNORED, ("/s", "/p", "/r", "/w")), OUTSIDE(HOME + "cgi-bin/x", HTML), IGNORED("/c")]),
    ("<white_list signature=' ab ' signature_path='../s'>../w</white_list><card_ranges>../c</card_ranges>"
     "<bin_ranges>/home/pay2/b</bin_ranges>",
     {"cardRanges": "/home/c", "BINRanges": "/home/pay2/b", "whiteList": "/home/w",
      "whiteListSignature": " ab ", "whiteListSignaturePath": "/home/s"},
     [OUTSIDE(path, HOME) for path in ("/home/c", "/home/pay2/b", "/home/w", "/home/s")]),
    ("<white_list signature='s'>a</white_list><white_list>b</white_list><white_list signature='t'/>",
     {"whiteList": "/home/pay/b"}, []),
    *((f"<run_on_boot>{command}</run_on_boot>", {"runOnBoot": program}, []) for command, program in (
        ("bin/a -b", HOME + "bin/a -b"), (HOME + "x", HOME + "x"),
        ("/home/pay2/../x", HOME + "/home/pay2/../x"))),
    ("<run_on_boot> </run_on_boot><cgi_bin_default> TRUE </cgi_bin_default>", {"cgiBinDefault": True}, []),
    ("<cgi_bin_default>true</cgi_bin_default><cgi_bin_default>1</cgi_bin_default>", {}, []),
    ("<desktop_item title=' 9 %2 ' icon_path='html/i' icon_position='12'>/home/pay/html/%1</desktop_item>",
     {"desktopItems": items("/html/pay/%1", "/html/pay/i", 12, " 9 %2 ")}, []),
    ("<config_page>html/b</config_page><desktop_item>html/a</desktop_item>"
     "<config_page icon_position='-5'>html/a</config_page>",
     {"desktopItems": items("/html/pay/a"),
      "configPages": items("/html/pay/b") + items("/html/pay/a", "", -5)}, []),
    ("<desktop_item icon_path='html/i.png'/><desktop_item>  </desktop_item><desktop_item>x</desktop_item>"
     "<desktop_item icon_path='/etc/i'>html/a</desktop_item><desktop_item icon_path='i'>html/a</desktop_item>"
     "<desktop_item icon_position='0x10'>html/a</desktop_item><config_page>/etc/x</config_page>"
     "<config_page icon_position='%1'>html/a</config_page>", {},
     [NO_FORM("desktop_item"), OUTSIDE(HOME + "x", HTML), NO_FORM("desktop_item"), IGNORED("/etc/i"),
      OUTSIDE(HOME + "i", HTML), NO_NUMBER("0x10"), IGNORED("/etc/x"), NO_FORM("config_page"),
      NO_NUMBER("%1")]),
])
def test_elements(shared, xml, expected, log):
    assert settings(shared, f"<application xmlns='u'>\n {xml}\n</application>") == (expected, log)


RESOURCES = "<resources>r</resources>"


def document(body, *declarations):
    return f"<!DOCTYPE application [{' '.join(declarations)}]><application>{RESOURCES}{body}</application>"


def nested(levels):
    return f"<application>{'<a>' * (levels - 1)}{'</a>' * (levels - 1)}{RESOURCES}</application>"


# An entity, and references to it, whose product is limited to 4 Mi.
def entity(length, uses, where="<a>{}</a>"):
    return document(where.format("&e;" * uses), f"<!ENTITY e '{'x' * length}'>")


def group(levels):
    return f"<!ELEMENT a {'(' * levels}b{')' * levels}>"


REFERRING = "<!ENTITY a 'x'>", "<!ENTITY b '&a;'>"  # counts as 4096 characters
MANY = [f"<!ENTITY e{n} 'x'>" for n in range(257)]


NOTHING, UNSUPPORTED = ({}, []), ({}, ["err ParseXMLRootNode Unsupported XML format. Failed."])
READ = {"resources": "/home/pay/r"}, []


@pytest.mark.parametrize("conf, expected", [
    *((kind, NOTHING) for kind in (None, "/", "-> /tmp/fifo", "-> /dev/zero", "-> /dev/ptmx", "-> " + CONF)),
    ("", NOTHING), (f"<application>{RESOURCES}", NOTHING), (f"<App>{RESOURCES}</App>", UNSUPPORTED),
    (nested(1).ljust(2**20), READ), (nested(1).ljust(2**20 + 1), NOTHING),
    (nested(100), READ), (nested(101), NOTHING),
    (document("", *MANY[:256]), READ), (document("", *MANY), NOTHING),
    (entity(4096, 1024), READ), (entity(4096, 1025), NOTHING), (entity(4096, 1025, "<a b='{}'/>"), NOTHING),
    (document("&b;" * 1023, *REFERRING), READ), (document("&b;" * 1024, *REFERRING), NOTHING),
    (document("<p>&e;</p>", "<!ENTITY e SYSTEM '/etc/passwd'>", "<!ENTITY % p 'x'>"), READ),
    (document("", "<!ELEMENT a ANY>" * 20000), READ), (document("", group(5000)), READ),
    (document("", group(70000)), NOTHING),
    (document("", f"<!ENTITY % p '{'(' * 2000}'>", f"<!ENTITY % q '<!ELEMENT a {'%p;' * 42}'>%q;"), NOTHING),
    (document("<a " + " ".join(f"a{n}='&nbsp;'" for n in range(30000)) + "/><x:y:z/><a b='1'c='2'/>"), READ),
    ("<?xml version='1.1'?>" + nested(1), READ), ("<?xml version='1.0' encoding='none'?>" + nested(1), READ),
])
def test_file(shared, conf, expected):
    remove("/tmp/fifo"), os.mkfifo("/tmp/fifo")
    began = time.monotonic()
    assert settings(shared, conf) == expected and time.monotonic() - began < PATIENCE / 2


# Identity and kind come from the home, and a link to a file is followed.
def test_record(shared):
    install("pay", 4002, "<desktop_item icon_position='7'>html/a</desktop_item>", group=4003)
    install("none", 4999, group=4998), install("linked", 4003)
    put("/home/none/cgi-bin", "/"), put("/home/file")
    put("/tmp/real", "<application><prompts>p</prompts></application>")
    put("/home/linked/app.conf", "-> /tmp/real", 4003)
    keys = "name", "uid", "gid", "userName", "groupName", "fastCgi", "prompts"
    assert [tuple(record[key] for key in keys) for record in call("Applications.Enumerate")] == [
        ("linked", 4003, 4003, "shop", "shop", True, "/home/linked/p"),
        ("none", 4999, 4998, "", "", False, ""), ("pay", 4002, 4003, "pay", "shop", True, "")]
    target = SERVICE, "/Applications", SERVICE + ".Applications", "Enumerate"
    reply = bus.call_sync(*target, None, None, 0, -1, None).print_(True)
    for text in "'uid': <uint32 4002>", "'gid': <uint32 4003>", "'desktopItems': <[<{", "'iconPosition': <7>":
        assert text in reply
