"""Prints docs/dbus-api.md; run by scripts/dbus-api with the interface XML files as arguments.

A comment before the interface begins with the name of a member and describes it in Markdown. Members that one
paragraph describes become rows of a table. Comments inside the interface are introspection's and not shown.
"""

import sys
import textwrap
import xml.etree.ElementTree as ET

INTRODUCTION = """\
# D-Bus interface

For authors of programs that call the daemon: service `com.veltrasys.kx.core` on the system bus. Who may
call what: [security.md](security.md). Made by `scripts/dbus-api` from the XML, installed in
`/usr/share/dbus-1/interfaces`."""


def text_of(comment):
    return textwrap.dedent(comment.text.strip("\n")).strip()


def signature(member):
    def names(direction):
        return ", ".join(f"{arg.get('type')} {arg.get('name')}" for arg in member.findall("arg")
                         if arg.get("direction", "in") == direction)
    kind = "signal " if member.tag == "signal" else ""
    result = names("out")
    return f"{kind}`{member.get('name')}({names('in')}){result and ' → ' + result}`"


def sections(node):
    interface = node.find("interface")
    texts = dict(text_of(child).split(": ", 1) for child in node if child.tag is ET.Comment)
    members = {member.get("name"): signature(member) for member in interface.iterfind("*[@name]")}
    if differing := texts.keys() ^ members.keys():
        sys.exit(f"{interface.get('name')}: no member or no description: {', '.join(differing)}")
    yield f"## `{node.get('name')}`, interface `{interface.get('name')}`"
    table, headed = ["| member | what it does |", "|-|-|"], []
    for name, member in members.items():
        text = texts[name][0].upper() + texts[name][1:]
        if "\n\n" in text:
            headed.append(f"### {member}\n\n{text}")
        else:
            table.append(f"| {member} | {' '.join(text.split())} |")
    if len(table) > 2:
        yield "\n".join(table)
    yield from headed


def main():
    page = [INTRODUCTION]
    for path in sys.argv[1:]:
        parser = ET.XMLParser(target=ET.TreeBuilder(insert_comments=True))
        page += sections(ET.parse(path, parser).getroot())
    print("\n\n".join(page))


main()
