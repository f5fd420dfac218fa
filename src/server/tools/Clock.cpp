#include "server/tools/Server.h"

#include "misc/Guard.h"
#include "misc/Log.h"

#include <QByteArray>
#include <QFile>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace core::tools {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/tools/Server";
constexpr auto kDateTimeFormat = "%Y-%m-%d %T";

enum Result { Success = 0, BadTime = -1, ClockNotSet = -2, OffsetNotWritten = -3, NoLocalTime = -4 };

/// \return the strptime format of a text of that length; null when there is none
const char* FormatOf(std::size_t length)
{
    switch (length) {
    case 10:
        return "%Y-%m-%d";
    case 19:
        return kDateTimeFormat;
    case 8:
        return "%T";
    default:
        return nullptr;
    }
}

/// \return seconds since the epoch; 0 when there is no hardware clock to read
qint64 ReadHardwareClock()
{
    QFile file("/sys/class/rtc/rtc0/since_epoch");
    return file.open(QIODevice::ReadOnly) ? std::strtoll(file.readLine().constData(), nullptr, 10) : 0;
}

/// Writes system time minus hardware clock to /etc/time_offset, which stays empty for a difference of 0.
bool WriteTimeOffset()
{
    const qint64 hardware = ReadHardwareClock();
    const auto offset = static_cast<qint32>(std::time(nullptr) - hardware);
    QFile file("/etc/time_offset");
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Unbuffered)) {
        return false;
    }
    const QByteArray text = offset == 0 ? QByteArray() : QByteArray::number(offset);
    return file.write(text) == text.size();
}

} // namespace

QString Server::GetUTCTime()
{
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    std::array<char, 32> text{};
    const std::size_t size = std::strftime(text.data(), text.size(), kDateTimeFormat, &utc);
    return QString::fromLatin1(text.data(), static_cast<int>(size));
}

int Server::SetSystemTime(const QString& str)
{
    int result = OffsetNotWritten;
    Misc::Guarded(KX_PREFIX(kSource), [&] { result = SetSystemTime(str, "MANUAL"); });
    return result;
}

int Server::SetSystemTime(const QString& str, const QString& infoSource)
{
    const QByteArray text = str.toLatin1();
    const bool isAscii = std::all_of(str.begin(), str.end(), [](QChar c) { return c.unicode() <= 0x7F; });

    // Makes glibc notice a new time zone.
    tzset();
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    if (localtime_r(&now, &local) == nullptr) {
        return NoLocalTime;
    }

    const char* const format = FormatOf(strnlen(text.constData(), 20));
    if (!isAscii || format == nullptr || strptime(text.constData(), format, &local) == nullptr) {
        return BadTime;
    }
    local.tm_isdst = -1;
    const timespec time{std::mktime(&local), 0};
    if (time.tv_sec == -1) {
        return BadTime;
    }
    if (clock_settime(CLOCK_REALTIME, &time) != 0) {
        return ClockNotSet;
    }
    if (!WriteTimeOffset()) {
        return OffsetNotWritten;
    }
    if (!infoSource.isEmpty()) {
        AnnounceTimeInfo(GetTimeZone(), infoSource);
    }
    return Success;
}

} // namespace core::tools
