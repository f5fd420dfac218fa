#pragma once

#include <utmp.h>

/// Size of a record in the accounting file. With 64 bits of time on a 32-bit machine the C library's
/// structure is larger than what the C library writes.
constexpr int kAccountingRecordSize = sizeof(long) == 8 ? static_cast<int>(sizeof(struct utmp)) : 384;
