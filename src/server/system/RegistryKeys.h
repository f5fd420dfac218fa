#pragma once

#include <QLatin1String>

namespace core::system {

/// QLatin1String measures its text at run time unless it is told the size.
template<int Size>
constexpr QLatin1String RegistryKey(const char (&name)[Size])
{
    return QLatin1String(name, Size - 1);
}

constexpr QLatin1String kSyslogKey = RegistryKey("%platform.syslog.remoteIP:port");
constexpr QLatin1String kHubIdKey = RegistryKey("systemconfig.hubID");
constexpr QLatin1String kModeKey = RegistryKey("systemconfig.mode");
constexpr QLatin1String kWakeOnMagicKey = RegistryKey("%network.wifi.phy.wakeup_on_magic");
constexpr QLatin1String kWifiPresenceKey = RegistryKey("network.wifi.presence");

} // namespace core::system
