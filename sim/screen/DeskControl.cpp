#include "DeskControl.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QKeyEvent>
#include <QMouseEvent>

namespace {

// What draws the page and takes its input.
QWidget* InputOf(WebView& view)
{
    return view.focusProxy() == nullptr ? &view : view.focusProxy();
}

} // namespace

DeskControl::DeskControl(WebView& view, Pictures& pictures) : m_view(view), m_pictures(pictures) {}

bool DeskControl::Screenshot(const QString& file)
{
    setDelayedReply(true);
    m_view.Grab([this, connection = connection(), request = message(), file](const QPixmap& picture) {
        const bool written = file.isEmpty() ? m_pictures.Add(picture.toImage()) : picture.save(file, "PNG");
        connection.send(request.createReply(written));
    });
    return false;
}

bool DeskControl::Touch(const QString& selector)
{
    setDelayedReply(true);
    const QString json =
        QString::fromUtf8(QJsonDocument(QJsonArray{selector}).toJson(QJsonDocument::Compact));
    // What is about to be left is pictured first.
    m_view.Grab([this, connection = connection(), request = message(), json](const QPixmap& before) {
        m_pictures.Add(before.toImage());
        m_view.Call("touch", json.mid(1, json.size() - 2), [this, connection, request](bool found) {
            m_view.WhenSettled([connection, request, found] { connection.send(request.createReply(found)); });
        });
    });
    return false;
}

bool DeskControl::TouchAt(int x, int y)
{
    setDelayedReply(true);
    m_view.Grab([this, connection = connection(), request = message(), x, y](const QPixmap& before) {
        m_pictures.Add(before.toImage());
        for (const auto type : {QEvent::MouseButtonPress, QEvent::MouseButtonRelease}) {
            QMouseEvent event(type, QPointF(x, y), Qt::LeftButton,
                              type == QEvent::MouseButtonPress ? Qt::LeftButton : Qt::NoButton,
                              Qt::NoModifier);
            QCoreApplication::sendEvent(InputOf(m_view), &event);
        }
        const bool inside = m_view.rect().contains(x, y);
        m_view.WhenSettled([connection, request, inside] { connection.send(request.createReply(inside)); });
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
    QKeyEvent press(QEvent::KeyPress, key, Qt::NoModifier, text);
    QKeyEvent release(QEvent::KeyRelease, key, Qt::NoModifier, text);
    QCoreApplication::sendEvent(InputOf(view), &press);
    QCoreApplication::sendEvent(InputOf(view), &release);
}
