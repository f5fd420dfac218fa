#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <QStringList>

namespace kxtest {

/// A browser service that only notes the pages it is told to show. It comes to the bus, leaves it and returns
/// as the test says; the test's event loop has to run for it to answer.
class FakeBrowser : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.veltrasys.browser.Server")

public:
    /// Lets the bus know that root may be the browser.
    FakeBrowser();
    ~FakeBrowser() override;

    /// \return whether the browser is on the bus now
    bool Come();
    void Go();

    const QStringList& Pages() const { return m_pages; }

public slots:
    int ShowPage(const QString& path);

signals:
    void loadCompleted(bool success);

private:
    QDBusConnection m_bus;
    QStringList m_pages;
};

} // namespace kxtest
