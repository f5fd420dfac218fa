#include "common/CommandLine.h"
#include "common/EndSignals.h"
#include "common/Output.h"

#include "Registry.h"

#include <QFile>
#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

using namespace cli;
using com::veltrasys::kRegistryFile;
using com::veltrasys::Registry;

/// \return the value of \a key; throws Failure with Refused when the registry cannot be read
QVariant Read(const QString& key)
{
    QVariant value = Registry().getValue(key);
    if (value.toString().startsWith("Error: ")) {
        throw Failure(Refused, value.toString().section("Error: ", 1));
    }
    return value;
}

/// The class cannot list its keys, so all are read from the stand-in's file.
QJsonObject Entries()
{
    QFile file(kRegistryFile);
    return file.open(QIODevice::ReadOnly) ? QJsonDocument::fromJson(file.readAll()).object() : QJsonObject();
}

/// \return the first argument
QString KeyOf(const Request& request)
{
    if (request.arguments.first().isEmpty()) {
        throw request.Misused("a key must not be empty");
    }
    return request.arguments.first();
}

ExitStatus Changed(bool isDone)
{
    if (!isDone) {
        Read({});
        throw Failure(Refused, QStringLiteral("cannot write %1; is the disk full?").arg(kRegistryFile));
    }
    return Success;
}

void PrintEntry(const QString& key, const QString& value)
{
    Print(Printable(key + '=' + value));
}

ExitStatus Get(const Request& request)
{
    const QVariant value = Read(KeyOf(request));
    if (value.isNull()) {
        throw Failure(Refused, QStringLiteral("no key '%1'").arg(request.arguments.first()));
    }
    Print(value.toString());
    return Success;
}

ExitStatus Set(const Request& request)
{
    return Changed(Registry().setValue(KeyOf(request), request.arguments.at(1)));
}

ExitStatus Delete(const Request& request)
{
    return Changed(Registry().deleteKey(KeyOf(request)));
}

ExitStatus List(const Request& /*request*/)
{
    Read({});
    const QJsonObject entries = Entries();
    for (auto entry = entries.begin(); entry != entries.end(); ++entry) {
        PrintEntry(entry.key(), entry.value().toVariant().toString());
    }
    return Success;
}

ExitStatus Watch(const Request& request)
{
    Read({});
    const EndSignals end;
    Registry registry;
    QObject::connect(&registry, &Registry::valueChanged, PrintEntry);
    QObject::connect(&registry, &Registry::keyDeleted,
                     [](const QString& key) { Print(Printable(key + " deleted")); });
    QStringList keys = request.arguments;
    QFileSystemWatcher folder;
    if (keys.isEmpty()) {
        registry.subscribe({}); // makes the folder
        folder.addPath(QFileInfo(kRegistryFile).path());
        keys = Entries().keys();
        QObject::connect(&folder, &QFileSystemWatcher::directoryChanged, [&registry, &keys] {
            for (const QString& key : Entries().keys()) {
                if (!keys.contains(key)) {
                    keys.append(key);
                    PrintEntry(key, registry.subscribe(key).toString());
                }
            }
        });
    }
    for (const QString& key : qAsConst(keys)) {
        registry.subscribe(key);
    }
    Complain("watching, Ctrl-C ends");
    QCoreApplication::exec();
    return Success;
}

} // namespace

int main(int argc, char** argv)
{
    return Main(argc, argv,
                {"kxregistry",
                 "Reads, changes and watches the registry of this terminal.",
                 {},
                 {{"Verbs",
                   {{"get KEY", "print the value", Get, "Exit status 1 when there is none.", {}, true},
                    {"set KEY VALUE", "store the value", Set, "", {}, true},
                    {"delete KEY", "remove the key, if it exists", Delete, "", {}, true},
                    {"list", "print all keys as KEY=VALUE, sorted", List},
                    {"watch [KEY]...",
                     "print changes, of all keys if none is given, until Ctrl-C",
                     Watch,
                     "One line each: KEY=VALUE, or KEY deleted.",
                     {},
                     true}}}},
                 "A VALUE may start with a dash, a KEY behind -- only; see kxregistry(1)."});
}
