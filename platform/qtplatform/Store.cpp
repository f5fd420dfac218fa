#include "Store.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLockFile>
#include <QMutex>
#include <QMutexLocker>
#include <QSettings>

#include <cerrno>
#include <chrono>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace com::veltrasys::registry {

namespace {

constexpr auto kConfiguration = "/etc/kxregistry.conf";
constexpr auto kDefaultPath = "/var/lib/kxregistry/registry.ini";
constexpr mode_t kDefaultMode = 0600;
constexpr mode_t kOwnerFolderMode = 0700;
constexpr mode_t kReadBits = 0444;
constexpr mode_t kFileBits = 0666;
constexpr mode_t kPermissionBits = 0777;
constexpr int kOctal = 8;

/// A change on its way into the file.
struct Transaction {
    const Location& location;
    const Change& change;
    bool prepared = false;
    QString error;
};

/// The transaction that the format's writer is to carry out: QSettings hands nothing through. Guarded by the
/// mutex of Replace.
Transaction* g_transaction = nullptr;

QString Failure(const QString& path, const QString& reason)
{
    return QStringLiteral("%1: %2").arg(path, reason);
}

std::optional<mode_t> ParseMode(const QString& text)
{
    bool valid = false;
    const mode_t mode = text.toUInt(&valid, kOctal);
    if (!valid || (mode & ~kFileBits) != 0 || (mode & kDefaultMode) != kDefaultMode) {
        return std::nullopt;
    }
    return mode;
}

Location ReadConfiguration()
{
    const QString file = QString::fromLatin1(kConfiguration);
    const QSettings settings(file, QSettings::IniFormat);
    Location location{settings.value("path", kDefaultPath).toString(), std::nullopt, {}};
    if (settings.status() != QSettings::NoError) {
        location.error = Failure(file, "cannot be read");
    } else if (!QDir::isAbsolutePath(location.path)) {
        location.error = Failure(file, "path is not absolute");
    } else if (settings.contains("mode")) {
        location.mode = ParseMode(settings.value("mode").toString());
        location.error = location.mode ? QString() : Failure(file, "mode is not octal from 0600 to 0666");
    }
    return location;
}

Content ReadStore(const QString& path)
{
    // Not blocking, lest a FIFO in the file's place stops the daemon.
    const int descriptor = open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0) {
        return errno == ENOENT ? Content{} : Content{{}, Failure(path, qt_error_string(errno))};
    }
    QFile file;
    file.open(descriptor, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle);
    struct stat status = {};
    if (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
        return {{}, Failure(path, "not a plain file")};
    }
    const QByteArray text = file.readAll();
    if (file.error() != QFileDevice::NoError) {
        return {{}, Failure(path, file.errorString())};
    }
    Content content = ParseStore(text);
    if (!content.error.isEmpty()) {
        content.error = Failure(path, content.error);
    }
    return content;
}

/// \return whether \a change made a difference to \a entries
bool Alter(Entries& entries, const Change& change)
{
    if (!change.value) {
        return entries.remove(change.key) > 0;
    }
    const auto entry = entries.constFind(change.key);
    if (entry != entries.cend() && *entry == *change.value) {
        return false;
    }
    entries.insert(change.key, *change.value);
    return true;
}

/// Gives the new file the owner and mode of the one it replaces. Should the owner be out of reach, the group
/// suffices: the mode then still means the same readers.
bool SetAccess(int descriptor, const Location& location)
{
    struct stat old = {};
    const bool exists = stat(QFile::encodeName(location.path).constData(), &old) == 0;
    if (exists && fchown(descriptor, old.st_uid, old.st_gid) != 0 &&
        fchown(descriptor, static_cast<uid_t>(-1), old.st_gid) != 0) {
        return false;
    }
    const mode_t present = exists ? old.st_mode & kPermissionBits : kDefaultMode;
    return fchmod(descriptor, location.mode.value_or(present)) == 0;
}

/// QSettings reads nothing: its copy of the file, one per process, would miss a change of the same size
/// within the resolution of the time stamp, and keep a failed change to make it with the next one.
bool ReadFormat(QIODevice& /*device*/, QSettings::SettingsMap& /*map*/)
{
    return true;
}

/// Brings \a text to the disk. That is checked here because QSettings would replace the store by what little
/// a full disk has taken: it does not notice a write that stops short, nor a failed flush.
bool WriteWhole(QFileDevice& file, const QByteArray& text)
{
    struct stat status = {};
    return file.write(text) == text.size() && file.flush() && fdatasync(file.handle()) == 0 &&
           fstat(file.handle(), &status) == 0 && status.st_size == text.size();
}

/// Runs while QSettings holds the lock, so the change meets the file as the last writer left it. With false
/// QSettings discards the new file and keeps the old one.
bool WriteFormat(QIODevice& device, const QSettings::SettingsMap& /*map*/)
{
    auto* file = qobject_cast<QFileDevice*>(&device);
    if (g_transaction == nullptr || file == nullptr) {
        return false;
    }
    Content content = ReadStore(g_transaction->location.path);
    g_transaction->error = content.error;
    if (!content.error.isEmpty() || !SetAccess(file->handle(), g_transaction->location)) {
        return false;
    }
    Alter(content.entries, g_transaction->change);
    g_transaction->prepared = WriteWhole(*file, FormatStore(content.entries));
    return g_transaction->prepared;
}

QSettings::Format StoreFormat()
{
    static const QSettings::Format kFormat =
        QSettings::registerFormat("kxregistry", ReadFormat, WriteFormat, Qt::CaseSensitive);
    return kFormat;
}

/// Who may use the file may use the folder: search it to read, and make and replace files to write.
mode_t FolderMode(mode_t fileMode)
{
    return kOwnerFolderMode | fileMode | ((fileMode & kReadBits) >> 2U);
}

bool CreateFolder(const Location& location)
{
    const QString folder = QFileInfo(location.path).path();
    if (QFileInfo::exists(folder)) {
        return true;
    }
    QDir().mkpath(QFileInfo(folder).path());
    const QByteArray name = QFile::encodeName(folder);
    if (mkdir(name.constData(), kOwnerFolderMode) != 0) {
        return errno == EEXIST;
    }
    return chmod(name.constData(), FolderMode(location.mode.value_or(kDefaultMode))) == 0;
}

/// Waits for a turn among the writers, which lasts as long as \a turn is open. The lock of QSettings is what
/// protects the file, but whoever waits for it sleeps in ever longer steps, of seconds in the end, and would
/// starve beside a busy writer.
/// \return whether the turn came within a second; if not, the lock decides alone
bool TakeTurn(const QString& folder, QFile& turn)
{
    constexpr std::chrono::seconds kPatience(1);
    constexpr std::chrono::milliseconds kStep(1);
    const int descriptor = open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0 || !turn.open(descriptor, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle)) {
        return false;
    }
    const QDeadlineTimer deadline(kPatience);
    while (flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
        if (deadline.hasExpired()) {
            return false;
        }
        std::this_thread::sleep_for(kStep);
    }
    return true;
}

/// Removes the lock of a writer that was killed before it had put its name in, which QSettings would wait for
/// half a minute. One that is in use stays.
void RemoveOrphanedLock(const QString& path)
{
    QLockFile(path + ".lock").removeStaleLockFile();
}

/// Has QSettings lock the store, call WriteFormat and replace the file.
bool Replace(Transaction& transaction)
{
    static QMutex mutex;
    const QMutexLocker locker(&mutex);
    QFile turn;
    if (TakeTurn(QFileInfo(transaction.location.path).path(), turn)) {
        RemoveOrphanedLock(transaction.location.path);
    }
    g_transaction = &transaction;
    QSettings settings(transaction.location.path, StoreFormat());
    settings.setValue("changed", true);
    settings.sync();
    g_transaction = nullptr;
    return transaction.prepared && settings.status() == QSettings::NoError;
}

} // namespace

QVector<Change> Differences(const Entries& before, const Entries& after)
{
    QVector<Change> changes;
    for (auto old = before.cbegin(); old != before.cend(); ++old) {
        if (!after.contains(old.key())) {
            changes.append({old.key(), std::nullopt});
        }
    }
    for (auto now = after.cbegin(); now != after.cend(); ++now) {
        const auto old = before.constFind(now.key());
        if (old == before.cend() || *old != *now) {
            changes.append({now.key(), *now});
        }
    }
    return changes;
}

const Location& ConfiguredLocation()
{
    static const Location kLocation = ReadConfiguration();
    return kLocation;
}

Content Store::Read() const
{
    return m_location.error.isEmpty() ? ReadStore(m_location.path) : Content{{}, m_location.error};
}

QString Store::Apply(const Change& change) const
{
    if (change.key.isEmpty()) {
        return QStringLiteral("a key must not be empty");
    }
    Content content = Read();
    if (!content.error.isEmpty() || !Alter(content.entries, change)) {
        return content.error;
    }
    Transaction transaction{m_location, change, false, {}};
    if (CreateFolder(m_location) && Replace(transaction)) {
        return {};
    }
    return transaction.error.isEmpty() ? Failure(m_location.path, "cannot be written") : transaction.error;
}

} // namespace com::veltrasys::registry
