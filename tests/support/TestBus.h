#pragma once

#include <QDBusMessage>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariant>

/// Allows root to own every name and to call every service on the bus of the private root.
void OpenBus();

/// Sends values to a second connection and back, so that they arrive as from another process.
class Echo : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "test.Echo")

public:
    Echo();
    ~Echo() override;
    static QDBusMessage Call(const QVariant& value);

public slots:
    void Repeat(const QDBusMessage& call);
};

/// Stands in for the browser service, on a bus connection of its own.
class FakeBrowser : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.veltrasys.browser.Server")

public:
    FakeBrowser();
    ~FakeBrowser() override;
    bool Appear();
    bool Vanish();

    /// \return the pages since the last call, when all that code of this process sent has arrived
    QStringList TakePages();

public slots:
    int ShowPage(const QString& path);

signals:
    void loadCompleted(bool success);

private:
    QStringList m_pages;
};
