#pragma once

#include <QList>
#include <QString>
#include <QVariant>
#include <QVariantMap>

#include <limits>

namespace core::configuration {

/// One icon of the terminal.
class BaseItem {
public:
    BaseItem() = default;

    /// Reads "form", "iconPath", "iconPosition" and "title" of a map; an absent key gives "" or 0.
    BaseItem(const QVariant& v);

    /// A map with exactly those four keys.
    operator QVariant() const;

    QString m_form;         ///< address of the form shown when the icon is touched
    QString m_iconPath;     ///< image shown as the icon, may be empty
    int m_iconPosition = 0; ///< 1 to 100 by convention; not enforced
    QString m_title;        ///< caption
};

using DesktopItem = BaseItem; ///< an icon on the desktop
using ConfigPage = BaseItem;  ///< an entry among the configuration pages

/// What the daemon knows of one installed application. A plain value.
class ApplicationConfig {
public:
    /// A user or group id that is not known.
    static constexpr quint32 kUnknownId = std::numeric_limits<quint32>::max();

    ApplicationConfig() = default;
    explicit ApplicationConfig(const QString& name);

    /// Reads a map that came over D-Bus. An absent key gives "", false or 0 (also for the ids); nested lists
    /// are read only in the form in which D-Bus delivers them. "cacertPath" is not read.
    ApplicationConfig(const QVariantMap& map);

    /// A copy carries no CA certificate path; moving keeps it.
    ApplicationConfig(const ApplicationConfig& other);
    ApplicationConfig& operator=(const ApplicationConfig& other);
    ApplicationConfig(ApplicationConfig&&) noexcept = default;
    ApplicationConfig& operator=(ApplicationConfig&&) noexcept = default;
    ~ApplicationConfig() = default;

    /// Sets the name and the home and temporary directories that follow from it. The name is not checked.
    void SetApplicationName(const QString& name);

    /// All 23 keys, empty ones included.
    operator QVariantMap() const;

    QString m_name;
    QList<DesktopItem> m_desktopItems; ///< in file order
    QList<ConfigPage> m_configPages;   ///< in file order
    QString m_resources;
    QString m_prompts;
    QString m_homeButton; ///< <app>/<path below html>
    QString m_cardRanges;
    QString m_BINRanges;
    QString m_whiteList;
    QString m_whiteListSignature; ///< as written in app.conf
    QString m_whiteListSignaturePath;
    QString m_showOnBoot;
    QString m_runOnBoot; ///< program and parameters, absolute
    bool m_cgiBinDefault = false;
    QString m_homeDir;
    QString m_tmpDir;
    QString m_groupName; ///< group that owns the home directory
    QString m_userName;  ///< user that owns the home directory
    quint32 m_uid = kUnknownId;
    quint32 m_gid = kUnknownId;
    bool m_fastCgi = false; ///< served through a FastCGI socket: the home has no cgi-bin
    QString m_webResources;
    QString m_cacertPath;
};

} // namespace core::configuration
