#include "server/applications/appconf/AppConfigParser.h"

#include "misc/Log.h"
#include "misc/Utils.h"
#include "server/applications/appconf/XmlReader.h"

#include <QDir>
#include <QDomDocument>

#include <sys/stat.h>

#include <algorithm>
#include <array>

using com::veltrasys::common::qt::qError;

namespace core::configuration {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/applications/appconf/AppConfigParser";

struct TextElement {
    const char* tag;
    QString ApplicationConfig::*field;
};

/// Elements whose text is stored as it is.
const std::array<TextElement, 9> kTextElements{{
    {"resources", &ApplicationConfig::m_resources},
    {"web_resources", &ApplicationConfig::m_webResources},
    {"prompts", &ApplicationConfig::m_prompts},
    {"home_button", &ApplicationConfig::m_homeButton},
    {"card_ranges", &ApplicationConfig::m_cardRanges},
    {"bin_ranges", &ApplicationConfig::m_BINRanges},
    {"white_list", &ApplicationConfig::m_whiteList},
    {"show_on_boot", &ApplicationConfig::m_showOnBoot},
    {"ca_cert", &ApplicationConfig::m_cacertPath},
}};

/// A program of the home directory may be named relative to it.
QString WithHomePrefix(const QString& command, const QString& homeDir)
{
    const QString prefix = homeDir + QLatin1Char('/');
    return command.isEmpty() || command.startsWith(prefix) ? command : prefix + command;
}

} // namespace

ApplicationConfig Parser::GatherApplicationData(const QString& name)
{
    AccountNames accounts;
    return GatherApplicationData(name, accounts);
}

ApplicationConfig Parser::GatherApplicationData(const QString& name, AccountNames& accounts)
{
    ApplicationConfig config(name);
    GetUserGroup(config.m_homeDir, config, accounts);

    QByteArray xml;
    QDomDocument document;
    if (ReadConfigFile(config.m_homeDir + QStringLiteral("/app.conf"), xml) && ParseXml(xml, document)) {
        ParseApplicationConfig(document, config);
    }
    if (!FileSystem::DirExists(config.m_homeDir + QStringLiteral("/cgi-bin"))) {
        config.m_fastCgi = true;
    }
    return config;
}

ApplicationConfig Parser::GatherApplicationData(const char* xml, const QString& name)
{
    ApplicationConfig config(name);
    GetUserGroup(config.m_homeDir, config);
    ParseApplicationConfig(xml, config);
    return config;
}

void Parser::ParseApplicationConfig(const char* xml, ApplicationConfig& config)
{
    QDomDocument document;
    if (ParseXml(QByteArray(xml), document)) {
        ParseApplicationConfig(document, config);
    }
}

void Parser::ParseApplicationConfig(const QDomDocument& doc, ApplicationConfig& config)
{
    QDomElement root = doc.documentElement();
    ParseXMLRootNode(root, config);
}

void Parser::ParseXMLRootNode(QDomNode& root, ApplicationConfig& config)
{
    if (root.toElement().tagName() != QLatin1String("application")) {
        qError() << KX_PREFIX(kSource) << "Unsupported XML format. Failed.";
        return;
    }
    for (QDomElement element = root.firstChildElement(); !element.isNull();
         element = element.nextSiblingElement()) {
        if (element.hasChildNodes()) {
            ReadElement(element, config);
        }
    }
    NormalizePaths(config);
}

void Parser::ReadElement(const QDomElement& element, ApplicationConfig& config)
{
    const QString tag = element.tagName();
    const QString text = element.firstChild().nodeValue().trimmed();

    const auto* simple =
        std::find_if(kTextElements.begin(), kTextElements.end(),
                     [&](const TextElement& entry) { return tag == QLatin1String(entry.tag); });
    if (simple != kTextElements.end()) {
        config.*simple->field = text;
    }
    if (tag == QLatin1String("white_list")) {
        config.m_whiteListSignature = element.attribute(QStringLiteral("signature"));
        config.m_whiteListSignaturePath = element.attribute(QStringLiteral("signature_path"));
    } else if (tag == QLatin1String("run_on_boot")) {
        config.m_runOnBoot = WithHomePrefix(text, config.m_homeDir);
    } else if (tag == QLatin1String("cgi_bin_default")) {
        config.m_cgiBinDefault = text.toLower() == QLatin1String("true");
    } else if (tag == QLatin1String("desktop_item")) {
        DesktopItem item;
        if (ReadItem(element, config, item)) {
            config.m_desktopItems.append(item);
        }
    } else if (tag == QLatin1String("config_page")) {
        ConfigPage page;
        if (ReadItem(element, config, page)) {
            config.m_configPages.append(page);
        }
    }
}

bool Parser::ReadItem(const QDomElement& element, const ApplicationConfig& config, BaseItem& item)
{
    item.m_form = element.firstChild().nodeValue().trimmed();
    item.m_iconPath = element.attribute(QStringLiteral("icon_path"));
    item.m_title = element.attribute(QStringLiteral("title"));

    item.m_form = ToWebPath(NormalizeFilePath(item.m_form, config), config, true);
    if (item.m_form.isEmpty()) {
        qError() << KX_PREFIX_AS(kSource, "ParseXMLRootNode")
                 << QStringLiteral("No form defined for <%1/> (%2)").arg(element.tagName(), config.m_name);
        return false;
    }
    if (!item.m_iconPath.isEmpty()) {
        item.m_iconPath = ToWebPath(NormalizeFilePath(item.m_iconPath, config), config, true);
        if (item.m_iconPath.isEmpty()) {
            return false;
        }
    }
    const QString position = element.attribute(QStringLiteral("icon_position"));
    if (!position.isEmpty()) {
        bool isNumber = false;
        item.m_iconPosition = position.toInt(&isNumber, 10);
        if (!isNumber) {
            qError() << KX_PREFIX_AS(kSource, "ParseXMLRootNode")
                     << QStringLiteral("'icon_position' should be an integer (actual value: '%3') ")
                            .arg(Misc::Excerpt(position));
            return false;
        }
    }
    return true;
}

void Parser::NormalizePaths(ApplicationConfig& config)
{
    const auto normalize = [&config](QString& path) { path = NormalizeFilePath(path, config); };
    const auto normalizeInsideHome = [&](QString& path) {
        normalize(path);
        IsInsideHomeDir(path, config); // only logs; the path is kept
    };

    normalize(config.m_showOnBoot);
    normalize(config.m_prompts);
    normalize(config.m_resources);
    normalize(config.m_webResources);
    normalize(config.m_homeButton);
    normalizeInsideHome(config.m_cardRanges);
    normalizeInsideHome(config.m_BINRanges);
    normalizeInsideHome(config.m_whiteList);
    normalizeInsideHome(config.m_whiteListSignaturePath);
    config.m_homeButton = ToWebPath(config.m_homeButton, config, false);
    normalize(config.m_cacertPath);
}

QString Parser::NormalizeFilePath(const QString& path, const ApplicationConfig& config)
{
    const QString& home = config.m_homeDir;
    if (path.startsWith(QLatin1Char('/')) && !path.startsWith(home)) {
        qError() << KX_PREFIX(kSource)
                 << QStringLiteral("File '%1' isn't located in '%2' directory. Ignored.")
                        .arg(Misc::Excerpt(path), home);
        return {};
    }
    return FileSystem::NormalizeFilePath(path, home);
}

void Parser::GetUserGroup(const QString& homeDir, ApplicationConfig& config)
{
    AccountNames accounts;
    GetUserGroup(homeDir, config, accounts);
}

void Parser::GetUserGroup(const QString& homeDir, ApplicationConfig& config, AccountNames& accounts)
{
    struct stat info = {};
    if (stat(homeDir.toLatin1().constData(), &info) != 0) {
        return;
    }
    config.m_uid = info.st_uid;
    config.m_gid = info.st_gid;
    config.m_userName = accounts.OfUser(info.st_uid);
    config.m_groupName = accounts.OfGroup(info.st_gid);
}

void Parser::GetResourceUIDandGID(const QString* path, unsigned int& uid, unsigned int& gid)
{
    uid = ApplicationConfig::kUnknownId;
    gid = ApplicationConfig::kUnknownId;
    struct stat info = {};
    if (path != nullptr && stat(path->toLatin1().constData(), &info) == 0) {
        uid = info.st_uid;
        gid = info.st_gid;
    }
}

bool Parser::IsInsideHomeDir(const QString& path, const ApplicationConfig& config)
{
    const QString prefix = config.m_homeDir + QLatin1Char('/');
    if (path.isEmpty() || path.startsWith(prefix)) {
        return true;
    }
    qError() << KX_PREFIX_AS(kSource, "operator()")
             << QStringLiteral("File '%1' is not in '%2' directory").arg(Misc::Excerpt(path), prefix);
    return false;
}

QString Parser::ToWebPath(const QString& path, const ApplicationConfig& config, bool withHtmlPrefix)
{
    const QString prefix = config.m_homeDir + QStringLiteral("/html/");
    if (path.isEmpty()) {
        return {};
    }
    if (!path.startsWith(prefix)) {
        qError() << KX_PREFIX_AS(kSource, "operator()")
                 << QStringLiteral("File '%1' is not in '%2' directory").arg(Misc::Excerpt(path), prefix);
        return {};
    }
    const QString page = config.m_name + QLatin1Char('/') + path.mid(prefix.size());
    return withHtmlPrefix ? QStringLiteral("/html/") + page : page;
}

} // namespace core::configuration
