#include "Registry.h"

#include <QFile>
#include <QFileSystemWatcher>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <QPointer>
#include <QSaveFile>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <stdexcept>

namespace com::veltrasys {

namespace {

constexpr auto kFolder = "/var/lib/kxregistry";
constexpr auto kLockFile = "/var/lib/kxregistry/lock";
constexpr mode_t kFolderMode = 0755;
constexpr mode_t kLockMode = 0600;

/// \return the whole store; empty when there is no file. Throws std::runtime_error when it cannot be read.
QJsonObject Read()
{
    QFile file(kRegistryFile);
    if (!file.open(QIODevice::ReadOnly)) {
        if (!file.exists()) {
            return {};
        }
        throw std::runtime_error(file.errorString().toStdString());
    }
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &error);
    if (!document.isObject()) {
        throw std::runtime_error(error.error == QJsonParseError::NoError ? "not a JSON object"
                                                                         : error.errorString().toStdString());
    }
    return document.object();
}

QVariant ValueOf(const QJsonObject& store, const QString& key)
{
    // The text of an empty value may be null, which callers would read as an absent key.
    return store.contains(key) ? QVariant("" + store.value(key).toVariant().toString()) : QVariant();
}

/// Puts a new file in the place of the old one, which stays when that fails.
bool Write(const QJsonObject& store)
{
    const QByteArray text = QJsonDocument(store).toJson();
    QSaveFile file(kRegistryFile);
    // A full disk can take a part of the text: flush reports that, commit does not.
    return file.open(QIODevice::WriteOnly) && file.setPermissions(QFile::ReadOwner | QFile::WriteOwner) &&
           file.write(text) == text.size() && file.flush() && file.commit();
}

/// Changes one key of the store as the last writer has left it; an undefined value removes the key.
bool Change(const QString& key, const QJsonValue& value)
{
    mkdir(kFolder, kFolderMode);
    const int descriptor = open(kLockFile, O_RDWR | O_CREAT | O_CLOEXEC, kLockMode);
    QFile lock;
    if (descriptor < 0 || !lock.open(descriptor, QIODevice::ReadWrite, QFile::AutoCloseHandle)) {
        return false;
    }
    while (flock(descriptor, LOCK_EX) != 0) {
        if (errno != EINTR) {
            return false;
        }
    }
    try {
        QJsonObject store = Read();
        if (store.value(key) == value) {
            return true;
        }
        store.insert(key, value);
        return Write(store);
    } catch (const std::runtime_error&) {
        // A store that cannot be read is left as it is.
        return false;
    }
}

} // namespace

class Q_DECL_HIDDEN Registry::Private {
public:
    explicit Private(Registry* owner) : m_owner(owner) {}

    void Watch();
    void ReportChanges();

    /// The subscribed keys with the values their subscriber knows; null for an absent key.
    QMap<QString, QVariant> m_known;

private:
    Registry* m_owner;
    QFileSystemWatcher* m_watcher = nullptr;
};

/// Watches the folder, since every change puts a new file there; makes the folder if it is missing.
void Registry::Private::Watch()
{
    if (m_watcher == nullptr) {
        m_watcher = new QFileSystemWatcher(m_owner);
        connect(m_watcher, &QFileSystemWatcher::directoryChanged, m_owner, [this] { ReportChanges(); });
    }
    if (m_watcher->directories().isEmpty()) {
        mkdir(kFolder, kFolderMode);
        m_watcher->addPath(kFolder);
    }
}

void Registry::Private::ReportChanges()
{
    // The watch comes before the reading: a change in between is seen twice, not never.
    Watch();
    QJsonObject store;
    try {
        store = Read();
    } catch (const std::runtime_error&) {
        return; // reported with the next change that can be read
    }
    // A receiver may unsubscribe any key or delete the registry.
    const QPointer<Registry> owner(m_owner);
    for (const QString& key : m_known.keys()) {
        const QVariant value = ValueOf(store, key);
        if (owner.isNull()) {
            return;
        }
        if (!m_known.contains(key) || m_known[key] == value) {
            continue;
        }
        m_known[key] = value;
        if (value.isNull()) {
            emit m_owner->keyDeleted(key);
        } else {
            emit m_owner->valueChanged(key, value.toString());
        }
    }
}

Registry::Registry(QObject* parent) : QObject(parent), d(std::make_unique<Private>(this)) {}

Registry::~Registry() = default;

QVariant Registry::subscribe(const QString& key)
{
    d->Watch();
    QVariant value = getValue(key);
    if (!d->m_known.contains(key)) {
        d->m_known.insert(key, value);
    }
    return value;
}

void Registry::unsubscribe(const QString& key)
{
    d->m_known.remove(key);
}

QVariant Registry::getValue(const QString& key)
{
    try {
        return ValueOf(Read(), key);
    } catch (const std::runtime_error& error) {
        return QStringLiteral("Error: %1: %2").arg(QString(kRegistryFile), QString(error.what()));
    }
}

bool Registry::setValue(const QString& key, const QVariant& value)
{
    return value.canConvert<QString>() && Change(key, value.toString());
}

bool Registry::deleteKey(const QString& key)
{
    return Change(key, QJsonValue::Undefined);
}

} // namespace com::veltrasys
