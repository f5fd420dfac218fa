#pragma once

namespace core::system {

/// The operations of SystemCall, by the numbers that callers use.
enum SystemCallId : int {
    RebootCall = 1,
    UsbGadgetCall = 96,
    WebServerCall = 97,
    HardwareTestCall = 98,
    LogCall = 99,
    ConsoleCall = 100,
    PowerOffCall = 101,
    SetKernelVersionCall = 102,
    GetKernelVersionCall = 103,
    CoinBatteryCall = 104,
    KeypadResetCall = 105
};

} // namespace core::system
