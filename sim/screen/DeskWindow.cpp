#include "DeskWindow.h"

#include "DeskControl.h"

#include <QGridLayout>
#include <QPushButton>
#include <QVBoxLayout>

#include <array>

namespace {

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

} // namespace

DeskWindow::DeskWindow(WebView& view, BrowserService& service) : m_view(view), m_service(service)
{
    setWindowTitle("Terminal");
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(&m_view);
    layout->addLayout(Keypad());
}

// The view belongs to others than the window.
DeskWindow::~DeskWindow()
{
    m_view.setParent(nullptr);
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
    auto* home = new QPushButton("Home", this);
    home->setFocusPolicy(Qt::NoFocus);
    connect(home, &QPushButton::clicked, this, &DeskWindow::GoHome);
    keys->addWidget(home, static_cast<int>(kKeys.size()) / kColumns, 0, 1, kColumns);
    return keys;
}

void DeskWindow::GoHome()
{
    m_applications.Fetch([this](const QVariantList& applications) {
        const QString shown = m_service.GetUrl().value("application").toString();
        QString page;
        for (const QVariant& application : applications) {
            const QVariantMap values = application.toMap();
            const QString home = values.value("homeButton").toString();
            if (!home.isEmpty() &&
                (values.value("name") == shown || (page.isEmpty() && values.value("name") == "desktop"))) {
                page = home;
            }
        }
        m_service.ShowPage(PageAddress(page));
    });
}
