#include "server/applications/appconf/ApplicationConfig.h"

#include <QDBusArgument>

namespace core::configuration {
namespace {

QVariantList ToVariants(const QList<BaseItem>& items)
{
    QVariantList variants;
    for (const BaseItem& item : items) {
        variants.append(item);
    }
    return variants;
}

/// Lists and maps within a map arrive from D-Bus as arguments that have yet to be streamed.
template<class Type>
Type FromBus(const QVariant& value)
{
    Type content;
    if (value.userType() == qMetaTypeId<QDBusArgument>()) {
        value.value<QDBusArgument>() >> content;
    }
    return content;
}

QList<BaseItem> ItemsFromBus(const QVariant& value)
{
    QList<BaseItem> items;
    for (const QVariant& element : FromBus<QVariantList>(value)) {
        items.append(QVariant(FromBus<QVariantMap>(element)));
    }
    return items;
}

} // namespace

BaseItem::BaseItem(const QVariant& v)
{
    const QVariantMap map = v.toMap();
    m_form = map.value("form").toString();
    m_iconPath = map.value("iconPath").toString();
    m_iconPosition = map.value("iconPosition").toInt();
    m_title = map.value("title").toString();
}

BaseItem::operator QVariant() const
{
    return QVariantMap{
        {"form", m_form},
        {"iconPath", m_iconPath},
        {"iconPosition", m_iconPosition},
        {"title", m_title},
    };
}

ApplicationConfig::ApplicationConfig(const QString& name)
{
    SetApplicationName(name);
}

ApplicationConfig::ApplicationConfig(const QVariantMap& map)
    : m_name(map.value("name").toString()),
      m_desktopItems(ItemsFromBus(map.value("desktopItems"))),
      m_configPages(ItemsFromBus(map.value("configPages"))),
      m_resources(map.value("resources").toString()),
      m_prompts(map.value("prompts").toString()),
      m_homeButton(map.value("homeButton").toString()),
      m_cardRanges(map.value("cardRanges").toString()),
      m_BINRanges(map.value("BINRanges").toString()),
      m_whiteList(map.value("whiteList").toString()),
      m_whiteListSignature(map.value("whiteListSignature").toString()),
      m_whiteListSignaturePath(map.value("whiteListSignaturePath").toString()),
      m_showOnBoot(map.value("showOnBoot").toString()),
      m_runOnBoot(map.value("runOnBoot").toString()),
      m_cgiBinDefault(map.value("cgiBinDefault").toBool()),
      m_homeDir(map.value("homeDir").toString()),
      m_tmpDir(map.value("tmpDir").toString()),
      m_groupName(map.value("groupName").toString()),
      m_userName(map.value("userName").toString()),
      m_uid(static_cast<quint32>(map.value("uid").toInt())),
      m_gid(static_cast<quint32>(map.value("gid").toInt())),
      m_fastCgi(map.value("fastCgi").toBool()),
      m_webResources(map.value("webResources").toString())
{}

ApplicationConfig::ApplicationConfig(const ApplicationConfig& other)
    : m_name(other.m_name),
      m_desktopItems(other.m_desktopItems),
      m_configPages(other.m_configPages),
      m_resources(other.m_resources),
      m_prompts(other.m_prompts),
      m_homeButton(other.m_homeButton),
      m_cardRanges(other.m_cardRanges),
      m_BINRanges(other.m_BINRanges),
      m_whiteList(other.m_whiteList),
      m_whiteListSignature(other.m_whiteListSignature),
      m_whiteListSignaturePath(other.m_whiteListSignaturePath),
      m_showOnBoot(other.m_showOnBoot),
      m_runOnBoot(other.m_runOnBoot),
      m_cgiBinDefault(other.m_cgiBinDefault),
      m_homeDir(other.m_homeDir),
      m_tmpDir(other.m_tmpDir),
      m_groupName(other.m_groupName),
      m_userName(other.m_userName),
      m_uid(other.m_uid),
      m_gid(other.m_gid),
      m_fastCgi(other.m_fastCgi),
      m_webResources(other.m_webResources)
{}

ApplicationConfig& ApplicationConfig::operator=(const ApplicationConfig& other)
{
    return *this = ApplicationConfig(other);
}

void ApplicationConfig::SetApplicationName(const QString& name)
{
    m_name = name;
    m_homeDir = "/home/" + name;
    m_tmpDir = "/tmp/" + name;
}

ApplicationConfig::operator QVariantMap() const
{
    return {
        {"name", m_name},
        {"desktopItems", ToVariants(m_desktopItems)},
        {"configPages", ToVariants(m_configPages)},
        {"resources", m_resources},
        {"prompts", m_prompts},
        {"homeButton", m_homeButton},
        {"cardRanges", m_cardRanges},
        {"BINRanges", m_BINRanges},
        {"whiteList", m_whiteList},
        {"whiteListSignature", m_whiteListSignature},
        {"whiteListSignaturePath", m_whiteListSignaturePath},
        {"showOnBoot", m_showOnBoot},
        {"runOnBoot", m_runOnBoot},
        {"cgiBinDefault", m_cgiBinDefault},
        {"homeDir", m_homeDir},
        {"tmpDir", m_tmpDir},
        {"groupName", m_groupName},
        {"userName", m_userName},
        {"uid", m_uid},
        {"gid", m_gid},
        {"fastCgi", m_fastCgi},
        {"webResources", m_webResources},
        {"cacertPath", m_cacertPath},
    };
}

} // namespace core::configuration
