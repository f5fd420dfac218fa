#include "DeskWindow.h"

#include "DeskControl.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMetaType>
#include <QDBusPendingCallWatcher>
#include <QGridLayout>
#include <QPushButton>

#include <array>
#include <memory>

namespace {

constexpr auto kCore = "com.veltrasys.kx.core";
constexpr int kColumns = 3;

struct Key {
    const char* caption;
    int code;
    const char* text;
    const char* colour;
};

constexpr std::array<Key, 15> kKeys = {{{"1", Qt::Key_1, "1", "#ffffff"},
                                        {"2", Qt::Key_2, "2", "#ffffff"},
                                        {"3", Qt::Key_3, "3", "#ffffff"},
                                        {"4", Qt::Key_4, "4", "#ffffff"},
                                        {"5", Qt::Key_5, "5", "#ffffff"},
                                        {"6", Qt::Key_6, "6", "#ffffff"},
                                        {"7", Qt::Key_7, "7", "#ffffff"},
                                        {"8", Qt::Key_8, "8", "#ffffff"},
                                        {"9", Qt::Key_9, "9", "#ffffff"},
                                        {".", Qt::Key_Period, ".", "#ffffff"},
                                        {"0", Qt::Key_0, "0", "#ffffff"},
                                        {"Tab", Qt::Key_Tab, "\t", "#ffffff"},
                                        {"Cancel", Qt::Key_Escape, "", "#f2b8b5"},
                                        {"Clear", Qt::Key_Backspace, "\b", "#f9e3a0"},
                                        {"Enter", Qt::Key_Return, "\r", "#b7e1c1"}}};

QList<QVariantMap> ItemsOf(const QVariantMap& application)
{
    QVariantList list;
    application.value(QStringLiteral("desktopItems")).value<QDBusArgument>() >> list;
    QList<QVariantMap> items;
    for (const QVariant& item : qAsConst(list)) {
        items.append(qdbus_cast<QVariantMap>(item));
    }
    return items;
}

// Pages and icons are named /html/<application>/<file>.
QString WithoutTree(const QString& path)
{
    return path.section(QLatin1Char('/'), 2);
}

QString PageAddress(const QString& page)
{
    return QStringLiteral("http://localhost/cgi-bin/page/show?path=") + page;
}

} // namespace

DeskWindow::DeskWindow(WebView& view, BrowserService& service)
    : m_view(view),
      m_service(service),
      m_core(QString::fromLatin1(kCore), QStringLiteral("/Applications"), QDBusConnection::systemBus(),
             nullptr),
      m_watcher(QString::fromLatin1(kCore), QDBusConnection::systemBus(),
                QDBusServiceWatcher::WatchForRegistration)
{
    qDBusRegisterMetaType<QList<QVariantMap>>();
    setWindowTitle(QStringLiteral("Terminal"));
    auto* layout = new QGridLayout(this);
    layout->addWidget(&m_view, 0, 0);
    layout->addLayout(Keypad(), 1, 0);
    layout->addLayout(&m_icons, 0, 1);
    m_icons.setAlignment(Qt::AlignTop);
    connect(&m_watcher, &QDBusServiceWatcher::serviceRegistered, this, &DeskWindow::Refresh);
    connect(&m_core, &ApplicationsProxy::OnStarted, this, &DeskWindow::Refresh);
    Refresh();
}

// The view and the icons' layout belong to others than the window.
DeskWindow::~DeskWindow()
{
    m_view.setParent(nullptr);
    layout()->removeItem(&m_icons);
    m_icons.setParent(nullptr);
}

QLayout* DeskWindow::Keypad()
{
    auto* keys = new QGridLayout;
    for (std::size_t index = 0; index < kKeys.size(); ++index) {
        const Key& key = kKeys[index];
        auto* button = new QPushButton(QString::fromLatin1(key.caption), this);
        button->setFocusPolicy(Qt::NoFocus);
        button->setMinimumHeight(34);
        button->setStyleSheet(QStringLiteral("background:%1").arg(QLatin1String(key.colour)));
        connect(button, &QPushButton::clicked, this,
                [this, &key] { SendKey(m_view, key.code, QString::fromLatin1(key.text)); });
        keys->addWidget(button, static_cast<int>(index) / kColumns, static_cast<int>(index) % kColumns);
    }
    auto* home = new QPushButton(QStringLiteral("Home"), this);
    home->setFocusPolicy(Qt::NoFocus);
    connect(home, &QPushButton::clicked, this, &DeskWindow::GoHome);
    keys->addWidget(home, static_cast<int>(kKeys.size()) / kColumns, 0, 1, kColumns);
    return keys;
}

void DeskWindow::Refresh()
{
    auto* call = new QDBusPendingCallWatcher(m_core.Enumerate(), this);
    connect(call, &QDBusPendingCallWatcher::finished, this, [this, call] {
        const QDBusPendingReply<QList<QVariantMap>> reply = *call;
        call->deleteLater();
        if (!reply.isError()) {
            ShowIcons(reply.value());
        }
    });
}

void DeskWindow::ShowIcons(const QList<QVariantMap>& applications)
{
    while (m_icons.count() > 0) {
        const std::unique_ptr<QLayoutItem> item(m_icons.takeAt(0));
        item->widget()->deleteLater();
    }
    m_homePages.clear();
    QMultiMap<int, QVariantMap> items;
    for (const QVariantMap& application : applications) {
        m_homePages.insert(application.value(QStringLiteral("name")).toString(),
                           application.value(QStringLiteral("homeButton")).toString());
        for (const QVariantMap& item : ItemsOf(application)) {
            items.insert(item.value(QStringLiteral("iconPosition")).toInt(), item);
        }
    }
    for (const QVariantMap& item : qAsConst(items)) {
        AddIcon(item);
    }
}

void DeskWindow::AddIcon(const QVariantMap& item)
{
    const auto text = [&](const char* key) { return item.value(QLatin1String(key)).toString(); };
    const QString page = WithoutTree(text("form"));
    const QString icon = WithoutTree(text("iconPath"));
    auto* button = new QPushButton(text("title"), this);
    button->setFocusPolicy(Qt::NoFocus);
    button->setIconSize(QSize(40, 40));
    button->setIcon(QIcon(QStringLiteral("/home/%1/html/%2")
                              .arg(icon.section(QLatin1Char('/'), 0, 0), icon.section(QLatin1Char('/'), 1))));
    connect(button, &QPushButton::clicked, this, [this, page] { m_service.ShowPage(PageAddress(page)); });
    m_icons.addWidget(button);
}

void DeskWindow::GoHome()
{
    const QString application = m_service.GetUrl().value(QStringLiteral("application")).toString();
    const QString page = m_homePages.value(application);
    m_service.ShowPage(PageAddress(page.isEmpty() ? m_homePages.value(QStringLiteral("desktop")) : page));
}
