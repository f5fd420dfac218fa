#include "server/tools/Server.h"

#include "misc/Log.h"
#include "misc/Utils.h"
#include "server/tools/Attempt.h"

#include <Registry.h>

#include <QFile>
#include <QFileInfo>
#include <QStringList>
#include <QVariant>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

using com::veltrasys::common::qt::qError;

namespace core::tools {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/tools/Server";

constexpr auto kLocalTime = "/etc/localtime";
constexpr auto kZoneRoot = "/usr/share/zoneinfo/";
constexpr auto kZoneMarker = "/zoneinfo/";
constexpr auto kHardwareClock = "/sys/class/rtc/rtc0/since_epoch";
constexpr auto kTimeOffset = "/etc/time_offset";
constexpr auto kDateTimeFormat = "%Y-%m-%d %T";

constexpr auto kSourceKey = "%platform.timeInfoSource";
constexpr auto kManual = "MANUAL";
constexpr auto kUnknown = "UNKNOWN";

enum TimeResult : int {
    Success = 0,
    BadTime = -1,
    ClockNotSet = -2,
    OffsetNotWritten = -3,
    NoLocalTime = -4
};

struct TimeFormat {
    std::size_t length;
    const char* format;
};

constexpr std::array<TimeFormat, 3> kTimeFormats{{
    {10, "%Y-%m-%d"},
    {19, kDateTimeFormat},
    {8, "%T"},
}};

/// Highest precedence first.
const QStringList& Sources()
{
    static const QStringList sources{QStringLiteral("HOST"), QLatin1String(kManual), QStringLiteral("HUB"),
                                     QLatin1String(kUnknown)};
    return sources;
}

bool IsOutranked(const QString& source, const QString& current)
{
    const int rank = Sources().indexOf(current);
    return rank >= 0 && Sources().indexOf(source) > rank;
}

bool ReadLocalTime(std::tm& local)
{
    // localtime_r alone would not notice that the zone has changed since its first call.
    tzset();
    const std::time_t now = std::time(nullptr);
    return localtime_r(&now, &local) != nullptr;
}

const char* FormatOfLength(std::size_t length)
{
    const auto* const found = std::find_if(kTimeFormats.begin(), kTimeFormats.end(),
                                           [&](const TimeFormat& entry) { return entry.length == length; });
    return found != kTimeFormats.end() ? found->format : nullptr;
}

/// Fills in the fields of \a local that the text gives and converts the whole to seconds since the epoch.
/// \return -1 when the text cannot be parsed (as mktime does for a time that does not exist)
std::time_t ParseLocalTime(const QString& text, std::tm local)
{
    constexpr std::size_t kMaxLength = 20;
    if (std::any_of(text.begin(), text.end(), [](QChar c) { return c.unicode() > 0x7F; })) {
        return -1;
    }
    const QByteArray ascii = text.toLatin1();
    const char* format = FormatOfLength(strnlen(ascii.constData(), kMaxLength));
    if (format == nullptr || strptime(ascii.constData(), format, &local) == nullptr) {
        return -1;
    }
    local.tm_isdst = -1;
    return std::mktime(&local);
}

bool SetClock(std::time_t seconds)
{
    const timespec time{seconds, 0};
    return clock_settime(CLOCK_REALTIME, &time) == 0;
}

/// \return seconds since the epoch; 0 when there is no hardware clock to read
quint64 ReadHardwareClock()
{
    constexpr qint64 kMaxDigits = 32;
    QFile file(QString::fromLatin1(kHardwareClock));
    if (!file.open(QIODevice::ReadOnly)) {
        return 0;
    }
    return std::strtoull(file.read(kMaxDigits).constData(), nullptr, 10);
}

/// Writes system time minus hardware clock, nothing for a difference of 0. QFile opens close-on-exec, which a
/// standard stream does not.
bool WriteTimeOffset()
{
    const quint64 hardware = ReadHardwareClock();
    const auto offset = static_cast<qint32>(static_cast<quint64>(std::time(nullptr)) - hardware);
    QFile file(QString::fromLatin1(kTimeOffset));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Unbuffered)) {
        return false;
    }
    const QByteArray text = offset != 0 ? QByteArray::number(offset) : QByteArray();
    return file.write(text) == text.size();
}

bool HasZoneLink()
{
    const QFileInfo link(QString::fromLatin1(kLocalTime));
    return link.exists() || !link.symLinkTarget().isEmpty();
}

enum class ZoneChange { Done, Unchanged, Failed };

ZoneChange RemoveZoneLink()
{
    if (HasZoneLink()) {
        QFile::remove(QString::fromLatin1(kLocalTime));
    }
    return ZoneChange::Done;
}

/// Makes the zone link point to the file of that zone, in place of where it points now. Failures are logged.
ZoneChange PointZoneLinkTo(const QString& timeZone)
{
    constexpr auto kFunction = "SetTimeZone";
    QFile link(QString::fromLatin1(kLocalTime));
    const QString target = FileSystem::CanonicalPath(QLatin1String(kZoneRoot) + timeZone);
    if (!target.startsWith(QLatin1String(kZoneRoot))) {
        qError() << KX_PREFIX_AS(kSource, kFunction) << "Time zone file" << Misc::Excerpt(timeZone)
                 << "is not located in" << kZoneRoot;
        return ZoneChange::Failed;
    }
    if (link.symLinkTarget() == target) {
        return ZoneChange::Unchanged;
    }
    if (HasZoneLink() && !link.remove()) {
        qError() << KX_PREFIX_AS(kSource, kFunction) << "Unable to remove" << link.fileName();
        return ZoneChange::Failed;
    }
    if (!QFile::link(target, link.fileName())) {
        qError() << KX_PREFIX_AS(kSource, kFunction) << "Error creating time zone symlink to" << target;
        return ZoneChange::Failed;
    }
    return ZoneChange::Done;
}

} // namespace

Server::Server(QObject* parent) : QObject(parent), m_registry(std::make_shared<com::veltrasys::Registry>()) {}

QString Server::GetUTCTime()
{
    constexpr std::size_t kBufferSize = 32;
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    std::array<char, kBufferSize> text{};
    if (gmtime_r(&now, &utc) == nullptr ||
        std::strftime(text.data(), text.size(), kDateTimeFormat, &utc) == 0) {
        return {};
    }
    return QString::fromLatin1(text.data());
}

QString Server::GetTimeZone()
{
    constexpr std::size_t kBufferSize = 256;
    std::array<char, kBufferSize> target{};
    if (readlink(kLocalTime, target.data(), target.size() - 1) < 0) {
        const int error = errno;
        qError() << KX_PREFIX(kSource) << "readlink() failed: " << std::strerror(error);
        return {};
    }
    const char* zone = std::strstr(target.data(), kZoneMarker);
    if (zone == nullptr) {
        qError() << KX_PREFIX(kSource) << "Unexpected time zone symlink:" << target.data();
        return {};
    }
    return QString::fromLocal8Bit(zone + std::strlen(kZoneMarker));
}

int Server::SetSystemTime(const QString& str)
{
    return Attempt("SetSystemTime", BadTime,
                   [&] { return SetSystemTime(str, QString::fromLatin1(kManual)); });
}

int Server::SetSystemTime(const QString& str, const QString& infoSource)
{
    std::tm local{};
    if (!ReadLocalTime(local)) {
        return NoLocalTime;
    }
    const std::time_t time = ParseLocalTime(str, local);
    if (time == -1) {
        return BadTime;
    }
    if (!SetClock(time)) {
        return ClockNotSet;
    }
    if (!WriteTimeOffset()) {
        return OffsetNotWritten;
    }
    if (!infoSource.isEmpty()) {
        RecordSource(infoSource);
        emit TimeInfoChanged(GetUTCTime(), GetTimeZone(), infoSource);
    }
    return Success;
}

int Server::SetTimeZone(const QString& timeZone)
{
    return Attempt("SetTimeZone", 1, [&] { return SetTimeZone(timeZone, QString::fromLatin1(kManual)); });
}

int Server::SetTimeZone(const QString& timeZone, const QString& infoSource)
{
    const ZoneChange change = timeZone.isEmpty() ? RemoveZoneLink() : PointZoneLinkTo(timeZone);
    // Log records carry local time, for which the C library would go by the zone that it has read already.
    tzset();
    if (change == ZoneChange::Done && !infoSource.isEmpty()) {
        RecordSource(infoSource);
        emit TimeInfoChanged(GetUTCTime(), timeZone, infoSource);
    }
    return change == ZoneChange::Failed ? 1 : 0;
}

int Server::SetTimeInfo(const QString& utcTime, const QString& timeZone, const QString& infoSource)
{
    const bool isReset = timeZone.isEmpty() && infoSource.isEmpty();
    const QString source = isReset ? QString::fromLatin1(kUnknown) : infoSource;
    return Attempt("SetTimeInfo", 1, [&] {
        if (!MaySetTimeInfo(source) || !ApplyTimeInfo(utcTime, timeZone)) {
            return 1;
        }
        RecordSource(source);
        emit TimeInfoChanged(GetUTCTime(), timeZone, source);
        return 0;
    });
}

bool Server::ApplyTimeInfo(const QString& utcTime, const QString& timeZone)
{
    constexpr auto kFunction = "SetTimeInfo";
    if (!utcTime.isEmpty()) {
        // Without a zone local time is UTC.
        SetTimeZone(QString(), QString());
        if (SetSystemTime(utcTime, QString()) != Success) {
            qError() << KX_PREFIX_AS(kSource, kFunction)
                     << QStringLiteral("Unable to set utcTime '%1'").arg(Misc::Excerpt(utcTime));
            return false;
        }
    }
    if (SetTimeZone(timeZone, QString()) != 0) {
        qError() << KX_PREFIX_AS(kSource, kFunction)
                 << QStringLiteral("Unable to set timeZone '%1'").arg(Misc::Excerpt(timeZone));
        return false;
    }
    return true;
}

bool Server::MaySetTimeInfo(const QString& source)
{
    constexpr auto kFunction = "SetTimeInfo";
    if (!Sources().contains(source)) {
        qError() << KX_PREFIX_AS(kSource, kFunction)
                 << QStringLiteral("Invalid infoSource '%1', allowed values: %2")
                        .arg(Misc::Excerpt(source), Sources().join(QStringLiteral(", ")));
        return false;
    }
    const QString current = m_registry->getValue(QString::fromLatin1(kSourceKey)).toString();
    if (IsOutranked(source, current)) {
        qError() << KX_PREFIX_AS(kSource, kFunction)
                 << QStringLiteral("Unable to set time info: '%1' cannot overwrite time set by '%2'")
                        .arg(source, current);
        return false;
    }
    return true;
}

int Server::ResetTimeInfoSource()
{
    return Attempt("ResetTimeInfoSource", 0, [&] {
        RecordSource(QString::fromLatin1(kUnknown));
        return 0;
    });
}

void Server::RecordSource(const QString& infoSource)
{
    m_registry->setValue(QString::fromLatin1(kSourceKey), infoSource);
}

} // namespace core::tools
