#include "server/dbus/DbusMonitor.h"

#include "misc/Log.h"
#include "misc/UniqueFd.h"
#include "misc/Utils.h"

#include <QByteArray>
#include <QDBusConnection>

#include <fcntl.h>
#include <sys/stat.h>
#include <utmp.h>

#include <cstddef>
#include <cstring>
#include <ctime>

using com::veltrasys::common::qt::qEmerg;
using com::veltrasys::common::qt::qError;

namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/dbus/DbusMonitor";

/// Writes ut_tv.tv_sec as readers of the file expect it: directly behind ut_session and of the same width.
/// On a 32-bit machine built with 64 bits of time, the header's structure has ut_tv elsewhere.
void SetTime(struct utmp& record, std::time_t now)
{
    const auto seconds = static_cast<decltype(record.ut_session)>(now);
    std::memcpy(reinterpret_cast<char*>(&record) + offsetof(struct utmp, ut_session) + sizeof(seconds),
                &seconds, sizeof(seconds));
}

} // namespace

DBusMonitor::DBusMonitor()
{
    const bool connected =
        QDBusConnection::systemBus().connect("", "/org/freedesktop/DBus/Local", "org.freedesktop.DBus.Local",
                                             "Disconnected", this, SLOT(DBusDied()));
    if (!connected) {
        qError() << KX_PREFIX(kSource) << "Failed to create connection for dbus monitor";
    }
}

void DBusMonitor::DBusDied()
{
    qEmerg() << KX_PREFIX(kSource) << "Seems that dbus-daemon died.";
    if (CheckIfAllowedToReboot()) {
        qEmerg() << KX_PREFIX(kSource) << "Updater is not running => The unit must be restarted";
        Misc::ExecShell("fbv -f -r /etc/platform/sys/maintenance.png &>/dev/null &");
        SavePoweroffRecord();
        Misc::ExecShell("(sleep 5 && reboot )&");
    } else {
        qEmerg() << KX_PREFIX(kSource) << "Updater is running => Avoid reboot";
    }
}

bool DBusMonitor::CheckIfAllowedToReboot()
{
    return !Misc::IsUpdaterRunning() && Misc::LockRPMFile();
}

void DBusMonitor::SavePoweroffRecord()
{
    struct utmp record = {};
    record.ut_type = RUN_LVL;
    std::memcpy(record.ut_line, "~~", 2);
    std::memcpy(record.ut_id, "~~", 2);
    std::strncpy(record.ut_user, "poweroff", sizeof(record.ut_user));
    SetTime(record, std::time(nullptr));

    // updwtmp does not create the file. An application may have put a link or a FIFO in its place: the record
    // goes to what has been opened and examined.
    const UniqueFd file(open("/tmp/wtmp", O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644));
    struct stat info = {};
    if (file && fstat(file.Get(), &info) == 0 && S_ISREG(info.st_mode)) {
        updwtmp(QByteArray("/proc/self/fd/" + QByteArray::number(file.Get())).constData(), &record);
    }
}
