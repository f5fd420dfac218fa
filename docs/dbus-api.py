"""Prints docs/dbus-api.md; run by scripts/dbus-api with the interface XML files as arguments.

A comment before the interface begins with the name of a member and describes it in Markdown. A comment
before a member is part of introspection, and is shown as it stands.
"""

import sys
import textwrap
import xml.etree.ElementTree as ET

INTRODUCTION = """\
# D-Bus interface

For authors of programs that call the daemon: service `com.veltrasys.kx.core` on the system bus. Who may
call what is told in [security.md](security.md). `scripts/dbus-api` makes this page from the interface XML,
which is installed in `/usr/share/dbus-1/interfaces`. Introspection of the daemon returns the same members,
with the texts in boxes."""


def text_of(comment):
    return textwrap.dedent(comment.text.strip("\n")).strip()


def signature(member):
    def names(direction):
        return ", ".join(f"{arg.get('type')} {arg.get('name')}" for arg in member.findall("arg")
                         if arg.get("direction", "in") == direction)
    kind = "Signal " if member.tag == "signal" else ""
    result = names("out")
    return f"### {kind}`{member.get('name')}({names('in')}){result and ' → ' + result}`"


def sections(node):
    interface = node.find("interface")
    texts = [text_of(child).partition(": ") for child in node if child.tag is ET.Comment]
    described = {name: text[0].upper() + text[1:] for name, _, text in texts}
    yield f"## Object `{node.get('name')}`"
    yield f"Interface `{interface.get('name')}`"
    comment = None
    for child in interface:
        if child.tag is ET.Comment:
            comment = child
            continue
        yield signature(child)
        if child.get("name") in described:
            yield described.pop(child.get("name"))
        if comment is not None:
            yield f"```text\n{text_of(comment)}\n```"
        comment = None
    if described:
        sys.exit(f"no member of {interface.get('name')}: {', '.join(described)}")


def main():
    page = [INTRODUCTION]
    for path in sys.argv[1:]:
        parser = ET.XMLParser(target=ET.TreeBuilder(insert_comments=True))
        page += sections(ET.parse(path, parser).getroot())
    print("\n\n".join(page))


main()
