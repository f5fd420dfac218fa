#include "misc/Log.h"
#include "misc/Utils.h"
#include "server/system/CommandOutput.h"
#include "server/system/RegistryKeys.h"
#include "server/system/Report.h"
#include "server/system/Server.h"

#include <Registry.h>

#include <QVariant>

#include <algorithm>
#include <cstring>
#include <stdexcept>

using com::veltrasys::common::qt::qError;

namespace core::system {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/system/Server";
constexpr auto kMagicPacket = "magic-packet";

struct Trigger {
    const char* listed; ///< as the tool lists it
    const char* name;
};

constexpr std::array<Trigger, 5> kTriggers{{
    {"disconnect", "disconnect"},
    {"GTK rekeying failure", "gtk-rekey-failure"},
    {"EAP identity request", "eap-identity-request"},
    {"4-way handshake", "4way-handshake"},
    {"magic packet", kMagicPacket},
}};

std::string PhyCommand(int index, const char* arguments)
{
    return "iw phy" + std::to_string(index) + " wowlan " + arguments;
}

bool Contains(const char* line, const char* text)
{
    return std::strstr(line, text) != nullptr;
}

} // namespace

int Server::GetWiphyIndex()
{
    return NumberInLastLine("iw dev | grep phy | awk -F '#' '{ print $2 }'");
}

bool Server::IsMurataWifiChip()
{
    const int type = GetType("/sys/kernel/secure/type");
    const int subtype = GetType("/sys/kernel/secure/subtype");
    return type == 1 && subtype == 4;
}

void Server::SetWifiWowlanParam(bool enable)
{
    Attempt(__func__, [&] {
        const int index = GetWiphyIndex();
        if (index == -1) {
            throw std::runtime_error("wifi is missing");
        }
        const std::string command = PhyCommand(index, enable ? "enable magic-packet" : "disable");
        if (Misc::ExecShell(command.c_str()) != 0) {
            throw std::runtime_error("Wowlan feature couldn't be set");
        }
    });
}

std::list<std::string> Server::GetWowlanFeaturesList()
{
    std::list<std::string> names;
    Attempt(__func__, [&] {
        const int index = GetWiphyIndex();
        if (index == -1) {
            throw std::runtime_error("wifi is missing");
        }
        ForEachLine(PhyCommand(index, "show  | grep wake").c_str(), [&](const char* line) {
            for (const Trigger& trigger : kTriggers) {
                if (Contains(line, trigger.listed)) {
                    names.emplace_back(trigger.name);
                }
            }
            return true;
        });
    });
    return names;
}

int Server::CheckWifiWowlanStatus()
{
    const int index = GetWiphyIndex();
    if (index == -1) {
        qError() << KX_PREFIX(kSource) << "wifi is missing";
        return 0;
    }
    bool enabled = false;
    ForEachLine(PhyCommand(index, "show  | grep WoWLAN").c_str(), [&](const char* line) {
        enabled = enabled || Contains(line, "enabled");
        return true;
    });
    if (enabled && m_isMurataWifiChip) {
        const std::list<std::string> names = GetWowlanFeaturesList();
        if (!names.empty() && std::find(names.begin(), names.end(), kMagicPacket) == names.end()) {
            SetWifiWowlanParam(false);
            enabled = false;
        }
    }
    return enabled ? 1 : 0;
}

void Server::CheckAndAlignWowlanFeatureStatus()
{
    if (m_registry->getValue(kWifiPresenceKey).toString() != QLatin1String("1")) {
        return;
    }
    m_registry->subscribe(kWakeOnMagicKey);
    const QVariant wanted = m_registry->getValue(kWakeOnMagicKey);
    if (wanted.isNull()) {
        SetWifiWowlanParam(true);
    } else if ((CheckWifiWowlanStatus() == 1) != wanted.toBool()) {
        SetWifiWowlanParam(wanted.toBool());
    }
}

} // namespace core::system
