#include "Registry.h"

#include "Store.h"
#include "StoreWatcher.h"

#include <QPointer>
#include <QSet>

using com::veltrasys::registry::Change;
using com::veltrasys::registry::Content;
using com::veltrasys::registry::Differences;
using com::veltrasys::registry::Entries;
using com::veltrasys::registry::Store;
using com::veltrasys::registry::StoreWatcher;

namespace com::veltrasys {

namespace {

QVariant ValueIn(const Content& content, const QString& key)
{
    if (!content.error.isEmpty()) {
        return QStringLiteral("Error: ") + content.error;
    }
    const auto entry = content.entries.constFind(key);
    return entry == content.entries.cend() ? QVariant() : QVariant(*entry);
}

} // namespace

class Q_DECL_HIDDEN Registry::Private {
public:
    explicit Private(Registry* owner) : m_owner(owner) {}

    void Watch();
    void Remember(const QString& key, const Content& content);
    void Forget(const QString& key);
    QVector<Change> TakeChanges(const Entries& entries);
    void Report();
    void Emit(const Change& change);

    const Store m_store;

private:
    Registry* const m_owner;
    std::unique_ptr<StoreWatcher> m_watcher;
    QSet<QString> m_keys;
    /// The subscribed keys that exist, with the values the owner's user knows.
    Entries m_known;
};

void Registry::Private::Watch()
{
    if (m_watcher) {
        return;
    }
    // The owner is the parent so that the watcher moves to another thread with it.
    m_watcher = std::make_unique<StoreWatcher>(m_store.Path(), m_owner);
    connect(m_watcher.get(), &StoreWatcher::Changed, m_owner, [this] { Report(); });
}

void Registry::Private::Remember(const QString& key, const Content& content)
{
    if (m_keys.contains(key)) {
        return;
    }
    m_keys.insert(key);
    if (content.entries.contains(key)) {
        m_known.insert(key, content.entries[key]);
    }
}

void Registry::Private::Forget(const QString& key)
{
    m_keys.remove(key);
    m_known.remove(key);
}

QVector<Change> Registry::Private::TakeChanges(const Entries& entries)
{
    Entries subscribed;
    for (const QString& key : qAsConst(m_keys)) {
        if (entries.contains(key)) {
            subscribed.insert(key, entries[key]);
        }
    }
    QVector<Change> changes = Differences(m_known, subscribed);
    m_known = subscribed;
    return changes;
}

void Registry::Private::Report()
{
    const Content content = m_store.Read();
    if (!content.error.isEmpty()) {
        // What the keys hold is unknown, which is no change; the next readable store tells.
        return;
    }
    const QVector<Change> changes = TakeChanges(content.entries);
    // Whoever hears of one change may unsubscribe another key or delete the registry.
    const QPointer<Registry> owner(m_owner);
    for (const Change& change : changes) {
        if (owner.isNull()) {
            return;
        }
        Emit(change);
    }
}

void Registry::Private::Emit(const Change& change)
{
    if (!m_keys.contains(change.key)) {
        return;
    }
    if (change.value) {
        emit m_owner->valueChanged(change.key, *change.value);
    } else {
        emit m_owner->keyDeleted(change.key);
    }
}

Registry::Registry(QObject* parent) : QObject(parent), d(std::make_unique<Private>(this)) {}

Registry::~Registry() = default;

QVariant Registry::subscribe(const QString& key)
{
    d->Watch();
    const Content content = d->m_store.Read();
    d->Remember(key, content);
    return ValueIn(content, key);
}

void Registry::unsubscribe(const QString& key)
{
    d->Forget(key);
}

QVariant Registry::getValue(const QString& key)
{
    return ValueIn(d->m_store.Read(), key);
}

bool Registry::setValue(const QString& key, const QVariant& value)
{
    return value.canConvert<QString>() && d->m_store.Apply({key, value.toString()}).isEmpty();
}

bool Registry::deleteKey(const QString& key)
{
    return d->m_store.Apply({key, std::nullopt}).isEmpty();
}

} // namespace com::veltrasys
