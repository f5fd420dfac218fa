// The steps that use the applications as a person does, by touching the screen.
#include "Checks.h"
#include "Files.h"

#include <QDir>
#include <QRegularExpression>

void Checks::Photograph(const QString& name)
{
    if (m_pictures.isEmpty()) {
        return;
    }
    static const QRegularExpression other(QStringLiteral("[^a-z0-9]+"));
    const QString words = name.section(QLatin1Char(','), 0, 0).toLower().replace(other, QStringLiteral("-"));
    const QString file =
        QStringLiteral("%1-%2.png").arg(++m_pictureCount, 2, 10, QLatin1Char('0')).arg(words);
    // Before the first page there is nothing to take a picture of.
    if (!WaitFor(
            [&] { return !Title().isEmpty() && m_terminal.Photograph(QDir(m_pictures).filePath(file)); })) {
        Expect(false, QStringLiteral("a picture is taken: ") + file, m_terminal.LastError());
    }
}

QString Checks::Title()
{
    return m_terminal.CurrentPage().value(QStringLiteral("title")).toString();
}

void Checks::ExpectPage(const QString& title, const QString& text)
{
    WaitFor([&] { return Title() == title && m_terminal.PageSource().contains(text); });
    const QString source = m_terminal.PageSource();
    Expect(Title() == title && source.contains(text),
           QStringLiteral("the page \"%1\" shows \"%2\"").arg(title, text),
           Title() + QLatin1Char(' ') + source);
}

void Checks::PaysOnScreen()
{
    const auto key = [](int position) {
        return QStringLiteral(".keypad button:nth-child(%1)").arg(position);
    };
    Expect(m_terminal.Touch(QStringLiteral("a[href*='pay/index']")),
           QStringLiteral("the icon of pay is touched"));
    ExpectPage(QStringLiteral("Pay"), QStringLiteral("Amount in euro"));
    // 7.95
    for (const int position : {7, 10, 9, 5}) {
        Expect(m_terminal.Touch(key(position)), QStringLiteral("a key is touched"));
    }
    Photograph(QStringLiteral("an-amount-is-entered"));
    Expect(m_terminal.Touch(QStringLiteral("button[type=submit]")),
           QStringLiteral("the button Pay is touched"));
    ExpectPage(QStringLiteral("Receipt"), QStringLiteral("7.95"));
    ExpectPage(QStringLiteral("Receipt"), QStringLiteral("Approved"));
    Expect(Contents("/home/pay/files/journal.txt").contains(QLatin1String("7.95")),
           QStringLiteral("the journal has the payment"));
}

void Checks::ShopsOnScreen()
{
    Expect(m_terminal.ShowPage(QStringLiteral("/cgi-bin/shop/catalogue")),
           QStringLiteral("the catalogue is asked for"));
    ExpectPage(QStringLiteral("Catalogue"), QStringLiteral("1 item, 2.60"));
    const int loads = m_terminal.LoadedCount();
    Expect(m_terminal.Touch(QStringLiteral("a[href*='item=cake']")), QStringLiteral("a cake is added"));
    ExpectPage(QStringLiteral("Catalogue"), QStringLiteral("2 items, 6.50"));
    Expect(m_terminal.LoadedCount() == loads, QStringLiteral("the page was not loaded anew"));
    Photograph(QStringLiteral("the-catalogue-counts"));
    Expect(m_terminal.Touch(QStringLiteral("a[href$='shop/basket']")),
           QStringLiteral("the basket is asked for"));
    ExpectPage(QStringLiteral("Basket"), QStringLiteral("Apple cake"));
}

void Checks::ShowsOtherPages()
{
    m_terminal.ShowPage(QStringLiteral("/cgi-bin/page/show?path=desktop/settings.html"));
    ExpectPage(QStringLiteral("Settings"), QStringLiteral("Brightness"));
    Photograph(QStringLiteral("configuration"));
    m_terminal.ShowPage(QStringLiteral("/cgi-bin/desktop/about"));
    ExpectPage(QStringLiteral("Status"), QStringLiteral("Kernel"));
    Photograph(QStringLiteral("status"));
    m_terminal.ShowPage(QStringLiteral("/html/platform/misc/noapps.html"));
    ExpectPage(QStringLiteral("No applications"), QStringLiteral("Nothing is installed"));
    Photograph(QStringLiteral("no applications"));
    m_terminal.ShowPage(QStringLiteral("/cgi-bin/page/show?path=desktop/index.html"));
    ExpectPage(QStringLiteral("Desktop"), QStringLiteral("Touch an application"));
}
