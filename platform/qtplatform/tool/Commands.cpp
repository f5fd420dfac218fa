#include "Commands.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <limits>

namespace com::veltrasys::registry {

namespace {

constexpr int kAny = std::numeric_limits<int>::max();

Status Report(const QString& error)
{
    if (error.isEmpty()) {
        return Done;
    }
    Complain(error);
    return Failed;
}

Status Get(const QStringList& arguments)
{
    const Content content = Store().Read();
    const auto entry = content.entries.constFind(arguments[0]);
    if (!content.error.isEmpty()) {
        return Report(content.error);
    }
    if (entry == content.entries.cend()) {
        return Report("no key '" + arguments[0] + "'");
    }
    return PrintLine(*entry) ? Done : Failed;
}

Status Set(const QStringList& arguments)
{
    return Report(Store().Apply({arguments[0], arguments[1]}));
}

Status Delete(const QStringList& arguments)
{
    return Report(Store().Apply({arguments[0], std::nullopt}));
}

Status List(const QStringList& /*arguments*/)
{
    const Content content = Store().Read();
    for (auto entry = content.entries.cbegin(); entry != content.entries.cend(); ++entry) {
        if (!PrintLine(DescribeChange({entry.key(), *entry}))) {
            return Failed;
        }
    }
    return Report(content.error);
}

constexpr Command kCommands[] = {
    {"get", 1, 1, "KEY", "print the value; exit 1 when there is none", Get},
    {"set", 2, 2, "KEY VALUE", "store the value", Set},
    {"delete", 1, 1, "KEY", "remove the key, if it exists", Delete},
    {"list", 0, 0, "", "print all keys as KEY=VALUE, sorted", List},
    {"watch", 0, kAny, "[KEY...]", "print changes, of all keys if none is given", Watch},
};

} // namespace

const Command* FindCommand(const QString& name)
{
    const auto* found = std::find_if(std::begin(kCommands), std::end(kCommands),
                                     [&name](const Command& command) { return name == command.name; });
    return found == std::end(kCommands) ? nullptr : found;
}

QString DescribeCommands()
{
    QString text;
    for (const Command& command : kCommands) {
        text += QString::asprintf("  %-6s %-9s  %s\n", command.name, command.arguments, command.purpose);
    }
    return text;
}

bool PrintLine(const QString& line)
{
    const QByteArray bytes = line.toUtf8() + '\n';
    const bool written = std::fwrite(bytes.constData(), bytes.size(), 1, stdout) == 1;
    if (!written || std::fflush(stdout) != 0) {
        Complain("standard output cannot be written");
        return false;
    }
    return true;
}

void Complain(const QString& text)
{
    // Nothing is left to tell it to, should this fail.
    (void)std::fprintf(stderr, "kxregistry: %s\n", text.toUtf8().constData());
}

QString DescribeChange(const Change& change)
{
    const QString key = EscapeKey(change.key);
    return change.value ? key + '=' + EscapeValue(*change.value) : key + " deleted";
}

} // namespace com::veltrasys::registry
