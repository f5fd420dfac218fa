// Whole app.conf files, read as the daemon reads them.

#include "Fuzz.h"

#include "server/applications/appconf/AppConfigParser.h"
#include "server/applications/appconf/XmlLimits.h"

#include <QDir>

using core::configuration::ApplicationConfig;
using core::configuration::BaseItem;
using core::configuration::Parser;

namespace {

const QString kName = QStringLiteral("pay");
const QString kHome = QStringLiteral("/home/pay");

void RequireCleanPaths(const ApplicationConfig& config)
{
    for (const QString& path : {config.m_showOnBoot, config.m_prompts, config.m_resources,
                                config.m_webResources, config.m_cardRanges, config.m_BINRanges,
                                config.m_whiteList, config.m_whiteListSignaturePath, config.m_cacertPath}) {
        Require(path.isEmpty() || path.startsWith('/'), "paths are absolute");
        Require(path.isEmpty() || QDir::cleanPath(path) == path, "paths are clean");
    }
}

void RequireWebPath(const BaseItem& item)
{
    Require(item.m_form.startsWith("/html/pay/"), "an item has a form of its application");
    Require(item.m_iconPath.isEmpty() || item.m_iconPath.startsWith("/html/pay/"), "and its icon");
}

void RequireOwnFiles(const ApplicationConfig& config)
{
    for (const BaseItem& item : config.m_desktopItems) {
        RequireWebPath(item);
    }
    for (const BaseItem& item : config.m_configPages) {
        RequireWebPath(item);
    }
    Require(config.m_homeButton.isEmpty() || config.m_homeButton.startsWith("pay/"), "and its home button");
    Require(config.m_runOnBoot.isEmpty() || config.m_runOnBoot.startsWith(kHome + '/'),
            "only programs below the home directory run on boot");
}

void RequireIdentity(const ApplicationConfig& config)
{
    Require(config.m_name == kName && config.m_homeDir == kHome, "the name is not the file's to choose");
    Require(config.m_uid == 0 && config.m_gid == 0 && config.m_userName == "root", "nor is the owner");
}

} // namespace

void TryInput(const QByteArray& input)
{
    PutFile("/home/pay/app.conf", input);
    const ApplicationConfig config = Parser::GatherApplicationData(kName);
    RequireCleanPaths(config);
    RequireOwnFiles(config);
    RequireIdentity(config);

    // Text in memory ends at a NUL, and no file is larger than the limit.
    if (!input.contains('\0') && input.size() <= core::configuration::kMaxXmlSize) {
        ApplicationConfig fromMemory = Parser::GatherApplicationData(input.constData(), kName);
        fromMemory.m_fastCgi = config.m_fastCgi;
        Require(QVariantMap(fromMemory) == QVariantMap(config), "a file says what its text says");
    }
}
