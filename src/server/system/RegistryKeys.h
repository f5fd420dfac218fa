#pragma once

namespace core::system {

constexpr auto kSyslogKey = "%platform.syslog.remoteIP:port";
constexpr auto kHubIdKey = "systemconfig.hubID";
constexpr auto kModeKey = "systemconfig.mode";
constexpr auto kWakeOnMagicKey = "%network.wifi.phy.wakeup_on_magic";
constexpr auto kWifiPresenceKey = "network.wifi.presence";

} // namespace core::system
