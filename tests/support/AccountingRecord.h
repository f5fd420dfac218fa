#pragma once

#include <QByteArray>

#include <utmp.h>

#include <cstddef>
#include <cstring>

/// Size of a record in the accounting file. With 64 bits of time on a 32-bit machine the C library's
/// structure is larger than what the C library writes.
constexpr int kAccountingRecordSize = sizeof(long) == 8 ? static_cast<int>(sizeof(struct utmp)) : 384;

/// Takes the time out of a record, where readers of the file find it: behind the session and as wide as that.
/// \return the time in seconds; the bytes of \a record are zero there afterwards
inline qint64 TakeAccountingTime(QByteArray& record)
{
    decltype(utmp::ut_session) seconds = 0;
    char* const at = record.data() + offsetof(struct utmp, ut_session) + sizeof(seconds);
    std::memcpy(&seconds, at, sizeof(seconds));
    std::memset(at, 0, sizeof(seconds));
    return seconds;
}
