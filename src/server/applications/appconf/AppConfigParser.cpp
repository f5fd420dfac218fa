#include "server/applications/appconf/AppConfigParser.h"

#include "misc/Log.h"
#include "misc/Utils.h"
#include "server/applications/appconf/XmlReader.h"

#include <QDomDocument>

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

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
constexpr std::array<TextElement, 9> kTextElements{{
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

} // namespace

ApplicationConfig Parser::GatherApplicationData(const QString& name)
{
    ApplicationConfig config(name);
    GetUserGroup(config.m_homeDir, config);

    QByteArray xml;
    QDomDocument document;
    if (ReadConfigFile(config.m_homeDir + "/app.conf", xml) && ParseXml(xml, document)) {
        ParseApplicationConfig(document, config);
    }
    if (!FileSystem::DirExists(config.m_homeDir + "/cgi-bin")) {
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
    if (root.toElement().tagName() != "application") {
        qError() << KX_PREFIX(kSource) << "Unsupported XML format. Failed.";
        return;
    }
    for (QDomElement element = root.firstChildElement(); !element.isNull();
         element = element.nextSiblingElement()) {
        if (element.hasChildNodes()) {
            ReadElement(element, config);
        }
    }
    for (QString* path : {&config.m_showOnBoot, &config.m_prompts, &config.m_resources,
                          &config.m_webResources, &config.m_homeButton}) {
        *path = NormalizeFilePath(*path, config);
    }
    for (QString* path :
         {&config.m_cardRanges, &config.m_BINRanges, &config.m_whiteList, &config.m_whiteListSignaturePath}) {
        *path = NormalizeFilePath(*path, config);
        IsInsideHomeDir(*path, config); // only logs; the path is kept
    }
    config.m_homeButton = ToWebPath(config.m_homeButton, config, false);
    config.m_cacertPath = NormalizeFilePath(config.m_cacertPath, config);
}

void Parser::ReadElement(const QDomElement& element, ApplicationConfig& config)
{
    const QByteArray tag = element.tagName().toUtf8();
    const QString text = element.firstChild().nodeValue().trimmed();

    for (const TextElement& simple : kTextElements) {
        if (tag == simple.tag) {
            config.*simple.field = text;
        }
    }
    if (tag == "white_list") {
        config.m_whiteListSignature = element.attribute("signature");
        config.m_whiteListSignaturePath = element.attribute("signature_path");
    } else if (tag == "run_on_boot") {
        config.m_runOnBoot = text;
        const QString prefix = config.m_homeDir + "/";
        if (!text.isEmpty() && !text.startsWith(prefix)) {
            config.m_runOnBoot.prepend(prefix);
        }
    } else if (tag == "cgi_bin_default") {
        config.m_cgiBinDefault = text.toLower() == "true";
    } else if (tag == "desktop_item" || tag == "config_page") {
        if (const auto item = ReadItem(element, config)) {
            auto& items = tag == "desktop_item" ? config.m_desktopItems : config.m_configPages;
            items.append(QVariant(*item));
        }
    }
}

std::optional<BaseItem> Parser::ReadItem(const QDomElement& element, const ApplicationConfig& config)
{
    constexpr auto kFunction = "ParseXMLRootNode";
    BaseItem item;
    item.m_form = element.firstChild().nodeValue().trimmed();
    item.m_iconPath = element.attribute("icon_path");
    item.m_title = element.attribute("title");

    item.m_form = ToWebPath(NormalizeFilePath(item.m_form, config), config, true);
    if (item.m_form.isEmpty()) {
        qError() << KX_PREFIX_AS(kSource, kFunction)
                 << QStringLiteral("No form defined for <%1/> (%2)").arg(element.tagName(), config.m_name);
        return std::nullopt;
    }
    if (!item.m_iconPath.isEmpty()) {
        item.m_iconPath = ToWebPath(NormalizeFilePath(item.m_iconPath, config), config, true);
        if (item.m_iconPath.isEmpty()) {
            return std::nullopt;
        }
    }
    const QString position = element.attribute("icon_position");
    if (!position.isEmpty()) {
        bool isNumber = false;
        item.m_iconPosition = position.toInt(&isNumber, 10);
        if (!isNumber) {
            qError()
                << KX_PREFIX_AS(kSource, kFunction)
                << QStringLiteral("'icon_position' should be an integer (actual value: '%3') ").arg(position);
            return std::nullopt;
        }
    }
    return item;
}

QString Parser::NormalizeFilePath(const QString& path, const ApplicationConfig& config)
{
    const QString& home = config.m_homeDir;
    if (path.startsWith('/') && !path.startsWith(home)) {
        qError() << KX_PREFIX(kSource)
                 << QStringLiteral("File '%1' isn't located in '%2' directory. Ignored.").arg(path, home);
        return {};
    }
    return FileSystem::NormalizeFilePath(path, home);
}

void Parser::GetUserGroup(const QString& homeDir, ApplicationConfig& config)
{
    struct stat info = {};
    if (stat(homeDir.toLatin1().constData(), &info) != 0) {
        return;
    }
    config.m_uid = info.st_uid;
    config.m_gid = info.st_gid;
    if (const struct passwd* user = getpwuid(info.st_uid)) {
        config.m_userName = user->pw_name;
    }
    if (const struct group* group = getgrgid(info.st_gid)) {
        config.m_groupName = group->gr_name;
    }
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
    const QString prefix = config.m_homeDir + "/";
    if (path.isEmpty() || path.startsWith(prefix)) {
        return true;
    }
    qError() << KX_PREFIX_AS(kSource, "operator()")
             << QStringLiteral("File '%1' is not in '%2' directory").arg(path, prefix);
    return false;
}

QString Parser::ToWebPath(const QString& path, const ApplicationConfig& config, bool withHtmlPrefix)
{
    if (path.isEmpty()) {
        return {};
    }
    const QString prefix = config.m_homeDir + "/html/";
    if (!path.startsWith(prefix)) {
        qError() << KX_PREFIX_AS(kSource, "operator()")
                 << QStringLiteral("File '%1' is not in '%2' directory").arg(path, prefix);
        return {};
    }
    const QString page = config.m_name + "/" + path.mid(prefix.size());
    return withHtmlPrefix ? "/html/" + page : page;
}

} // namespace core::configuration
