#include "server/applications/appconf/ApplicationConfig.h"

#include <QDBusArgument>

#include <array>

namespace core::configuration {
namespace {

struct TextField {
    QString key;
    QString ApplicationConfig::*field;
};

/// The texts that travel as they are in both directions. Their keys are made once for all records.
const std::array<TextField, 15>& TextFields()
{
    static const std::array<TextField, 15> fields{{
        {QStringLiteral("name"), &ApplicationConfig::m_name},
        {QStringLiteral("resources"), &ApplicationConfig::m_resources},
        {QStringLiteral("prompts"), &ApplicationConfig::m_prompts},
        {QStringLiteral("homeButton"), &ApplicationConfig::m_homeButton},
        {QStringLiteral("cardRanges"), &ApplicationConfig::m_cardRanges},
        {QStringLiteral("BINRanges"), &ApplicationConfig::m_BINRanges},
        {QStringLiteral("whiteList"), &ApplicationConfig::m_whiteList},
        {QStringLiteral("whiteListSignature"), &ApplicationConfig::m_whiteListSignature},
        {QStringLiteral("whiteListSignaturePath"), &ApplicationConfig::m_whiteListSignaturePath},
        {QStringLiteral("showOnBoot"), &ApplicationConfig::m_showOnBoot},
        {QStringLiteral("runOnBoot"), &ApplicationConfig::m_runOnBoot},
        {QStringLiteral("homeDir"), &ApplicationConfig::m_homeDir},
        {QStringLiteral("tmpDir"), &ApplicationConfig::m_tmpDir},
        {QStringLiteral("groupName"), &ApplicationConfig::m_groupName},
        {QStringLiteral("userName"), &ApplicationConfig::m_userName},
    }};
    return fields;
}

template<class Item>
QVariantList ToVariants(const QList<Item>& items)
{
    QVariantList variants;
    for (const Item& item : items) {
        variants.append(item.operator QVariant());
    }
    return variants;
}

/// Whether the list of maps that \a value holds can be streamed out of it; streaming anything else would
/// leave Qt's reader at a place it does not expect.
bool IsListFromBus(const QVariant& value)
{
    return value.userType() == qMetaTypeId<QDBusArgument>() &&
           value.value<QDBusArgument>().currentType() == QDBusArgument::ArrayType;
}

QVariantMap ToMap(const QVariant& element)
{
    QVariantMap map;
    if (element.userType() == qMetaTypeId<QDBusArgument>()) {
        const auto argument = element.value<QDBusArgument>();
        if (argument.currentType() == QDBusArgument::MapType) {
            argument >> map;
        }
    }
    return map;
}

template<class Item>
QList<Item> FromVariant(const QVariant& value)
{
    QList<Item> items;
    if (!IsListFromBus(value)) {
        return items;
    }
    QVariantList elements;
    value.value<QDBusArgument>() >> elements;
    for (const QVariant& element : elements) {
        items.append(Item(QVariant(ToMap(element))));
    }
    return items;
}

} // namespace

BaseItem::BaseItem(const QVariant& v)
{
    const QVariantMap map = v.toMap();
    m_form = map.value(QStringLiteral("form")).toString();
    m_iconPath = map.value(QStringLiteral("iconPath")).toString();
    m_iconPosition = map.value(QStringLiteral("iconPosition")).toInt();
    m_title = map.value(QStringLiteral("title")).toString();
}

BaseItem::operator QVariant() const
{
    return QVariantMap{
        {QStringLiteral("form"), m_form},
        {QStringLiteral("iconPath"), m_iconPath},
        {QStringLiteral("iconPosition"), m_iconPosition},
        {QStringLiteral("title"), m_title},
    };
}

ApplicationConfig::ApplicationConfig(const QString& name)
{
    SetApplicationName(name);
}

ApplicationConfig::ApplicationConfig(const QVariantMap& map)
{
    for (const TextField& text : TextFields()) {
        this->*text.field = map.value(text.key).toString();
    }
    m_desktopItems = FromVariant<DesktopItem>(map.value(QStringLiteral("desktopItems")));
    m_configPages = FromVariant<ConfigPage>(map.value(QStringLiteral("configPages")));
    m_cgiBinDefault = map.value(QStringLiteral("cgiBinDefault")).toBool();
    m_uid = static_cast<quint32>(map.value(QStringLiteral("uid")).toInt());
    m_gid = static_cast<quint32>(map.value(QStringLiteral("gid")).toInt());
    m_fastCgi = map.value(QStringLiteral("fastCgi")).toBool();
    m_webResources = map.value(QStringLiteral("webResources")).toString();
}

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
    if (this != &other) {
        *this = ApplicationConfig(other);
    }
    return *this;
}

void ApplicationConfig::SetApplicationName(const QString& name)
{
    m_name = name;
    m_homeDir = QStringLiteral("/home/") + name;
    m_tmpDir = QStringLiteral("/tmp/") + name;
}

ApplicationConfig::operator QVariantMap() const
{
    QVariantMap map;
    for (const TextField& text : TextFields()) {
        map.insert(text.key, this->*text.field);
    }
    map.insert(QStringLiteral("desktopItems"), ToVariants(m_desktopItems));
    map.insert(QStringLiteral("configPages"), ToVariants(m_configPages));
    map.insert(QStringLiteral("cgiBinDefault"), m_cgiBinDefault);
    map.insert(QStringLiteral("uid"), m_uid);
    map.insert(QStringLiteral("gid"), m_gid);
    map.insert(QStringLiteral("fastCgi"), m_fastCgi);
    map.insert(QStringLiteral("webResources"), m_webResources);
    map.insert(QStringLiteral("cacertPath"), m_cacertPath);
    return map;
}

} // namespace core::configuration
