#include "Commands.h"
#include "StoreWatcher.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <csignal>

#include <sys/signalfd.h>

namespace com::veltrasys::registry {

namespace {

Entries Select(const Entries& entries, const QStringList& keys)
{
    if (keys.isEmpty()) {
        return entries;
    }
    Entries selected;
    for (const QString& key : keys) {
        if (entries.contains(key)) {
            selected.insert(key, entries[key]);
        }
    }
    return selected;
}

/// Prints what changed since the last call and keeps \a known up to date.
void PrintChanges(const QStringList& keys, Entries& known)
{
    const Content content = Store().Read();
    if (!content.error.isEmpty()) {
        Complain(content.error);
        return;
    }
    const Entries current = Select(content.entries, keys);
    for (const Change& change : Differences(known, current)) {
        if (!PrintLine(DescribeChange(change))) {
            QCoreApplication::exit(Failed);
            return;
        }
    }
    known = current;
}

/// Turns the signals that end a program into something the event loop can wait for.
/// \return a descriptor that is readable when one has come; it lasts until the process ends
int EndSignals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return signalfd(-1, &set, SFD_CLOEXEC);
}

} // namespace

Status Watch(const QStringList& keys)
{
    QSocketNotifier end(EndSignals(), QSocketNotifier::Read);
    QObject::connect(&end, &QSocketNotifier::activated, [&end] {
        end.setEnabled(false);
        QCoreApplication::exit(Done);
    });

    const Store store;
    const StoreWatcher watcher(store.Path());
    const Content content = store.Read();
    if (!content.error.isEmpty()) {
        Complain(content.error);
        return Failed;
    }
    Entries known = Select(content.entries, keys);
    QObject::connect(&watcher, &StoreWatcher::Changed, [&keys, &known] { PrintChanges(keys, known); });
    Complain("watching " + store.Path());
    return static_cast<Status>(QCoreApplication::exec());
}

} // namespace com::veltrasys::registry
