#pragma once

#include "CommandLine.h"

#include <QVariantMap>

namespace kxctl {

/// The daemon's numbers for its operations.
enum SystemCallId {
    RebootCall = 1,
    UsbCall = 96,
    WebServerCall = 97,
    HardwareTestCall = 98,
    LogCall = 99,
    ConsoleCall = 100,
    PowerOffCall = 101,
    SetKernelCall = 102,
    GetKernelCall = 103,
    BatteryCall = 104,
    KeypadCall = 105
};

/// Performs a system call and shows the answer as JSON if that is wanted.
/// \return the answer; throws Failure with Refused when it tells of a failure
QVariantMap PerformSystemCall(const Request& request, int id, const QVariantMap& arguments);

/// Reads the arguments of a generic call: KEY=TEXT is a text, KEY:=JSON any other value.
/// Throws Failure with Misuse for anything else.
QVariantMap ParseCallArguments(const QStringList& words);

} // namespace kxctl
