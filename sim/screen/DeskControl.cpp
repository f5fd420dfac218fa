#include "DeskControl.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QKeyEvent>

DeskControl::DeskControl(WebView& view, QObject* parent) : QObject(parent), m_view(view) {}

bool DeskControl::Screenshot(const QString& file)
{
    setDelayedReply(true);
    m_view.Grab([connection = connection(), request = message(), file](const QPixmap& picture) {
        connection.send(request.createReply(!picture.isNull() && picture.save(file, "PNG")));
    });
    return false;
}

bool DeskControl::Touch(const QString& selector)
{
    setDelayedReply(true);
    const QString json =
        QString::fromUtf8(QJsonDocument(QJsonArray{selector}).toJson(QJsonDocument::Compact));
    m_view.Call(QStringLiteral("touch"), json.mid(1, json.size() - 2),
                [connection = connection(), request = message()](bool found) {
                    connection.send(request.createReply(found));
                });
    return false;
}

void DeskControl::Type(const QString& text)
{
    for (const QChar character : text) {
        SendKey(m_view, character.toUpper().unicode(), character);
    }
}

void SendKey(WebView& view, int key, const QString& text)
{
    QWidget* target = view.focusProxy() == nullptr ? &view : view.focusProxy();
    QKeyEvent press(QEvent::KeyPress, key, Qt::NoModifier, text);
    QKeyEvent release(QEvent::KeyRelease, key, Qt::NoModifier, text);
    QCoreApplication::sendEvent(target, &press);
    QCoreApplication::sendEvent(target, &release);
}
