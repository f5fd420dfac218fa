#include "server/system/Server.h"

#include "misc/Log.h"
#include "misc/Utils.h"
#include "server/system/CommandOutput.h"
#include "server/system/RegistryKeys.h"

#include <Registry.h>

#include <QVariant>

#include <algorithm>
#include <array>
#include <exception>
#include <stdexcept>

using com::veltrasys::common::qt::qError;

namespace core::system {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/system/Server";

struct Trigger {
    const char* text; ///< in a line of iw's listing
    const char* name;
};

constexpr std::array<Trigger, 5> kTriggers{{
    {"disconnect", "disconnect"},
    {"GTK rekeying failure", "gtk-rekey-failure"},
    {"EAP identity request", "eap-identity-request"},
    {"4-way handshake", "4way-handshake"},
    {"magic packet", "magic-packet"},
}};

bool Contains(const std::string& line, const char* text)
{
    return line.find(text) != std::string::npos;
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
    try {
        const int index = GetWiphyIndex();
        if (index == -1) {
            throw std::runtime_error("wifi is missing");
        }
        const std::string command =
            "iw phy" + std::to_string(index) + " wowlan " + (enable ? "enable magic-packet" : "disable");
        if (Misc::ExecShell(command.c_str()) != 0) {
            throw std::runtime_error("Wowlan feature couldn't be set");
        }
    } catch (const std::exception& error) {
        qError() << KX_PREFIX(kSource) << error.what();
    } catch (...) {
        qError() << KX_PREFIX(kSource) << "unknown exception";
    }
}

std::list<std::string> Server::GetWowlanFeaturesList()
{
    const int index = GetWiphyIndex();
    if (index == -1) {
        qError() << KX_PREFIX(kSource) << "wifi is missing";
        return {};
    }
    std::list<std::string> names;
    const std::string command = "iw phy" + std::to_string(index) + " wowlan show  | grep wake";
    for (const std::string& line : OutputLines(command.c_str())) {
        for (const Trigger& trigger : kTriggers) {
            if (Contains(line, trigger.text)) {
                names.emplace_back(trigger.name);
            }
        }
    }
    return names;
}

int Server::CheckWifiWowlanStatus()
{
    const int index = GetWiphyIndex();
    if (index == -1) {
        qError() << KX_PREFIX(kSource) << "wifi is missing";
        return 0;
    }
    const std::string command = "iw phy" + std::to_string(index) + " wowlan show  | grep WoWLAN";
    int status = 0;
    for (const std::string& line : OutputLines(command.c_str())) {
        if (Contains(line, "enabled")) {
            status = 1;
        }
    }
    if (status == 1 && m_isMurataWifiChip) {
        const std::list<std::string> names = GetWowlanFeaturesList();
        if (!names.empty() && std::find(names.begin(), names.end(), "magic-packet") == names.end()) {
            SetWifiWowlanParam(false);
            status = 0;
        }
    }
    return status;
}

void Server::CheckAndAlignWowlanFeatureStatus()
{
    if (m_registry->getValue(kWifiPresenceKey).toString() != "1") {
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
