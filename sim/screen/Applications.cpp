#include "Applications.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMetaType>
#include <QDBusPendingCallWatcher>

namespace {

QVariantList ItemsOf(const QVariantMap& application, const char* key)
{
    QVariantList items;
    application.value(key).value<QDBusArgument>() >> items;
    for (QVariant& item : items) {
        item = qdbus_cast<QVariantMap>(item);
    }
    return items;
}

} // namespace

Applications::Applications()
    : m_core("com.veltrasys.kx.core", "/Applications", QDBusConnection::systemBus(), nullptr)
{
    qDBusRegisterMetaType<QList<QVariantMap>>();
}

void Applications::Fetch(const std::function<void(const QVariantList&)>& done)
{
    auto* call = new QDBusPendingCallWatcher(m_core.Enumerate(), &m_core);
    QObject::connect(call, &QDBusPendingCallWatcher::finished, [call, done] {
        const QDBusPendingReply<QList<QVariantMap>> reply = *call;
        call->deleteLater();
        QVariantList applications;
        if (!reply.isError()) {
            for (const QVariantMap& application : reply.value()) {
                applications.append(QVariantMap{{"name", application.value("name")},
                                                {"homeButton", application.value("homeButton")},
                                                {"desktopItems", ItemsOf(application, "desktopItems")},
                                                {"configPages", ItemsOf(application, "configPages")}});
            }
        }
        done(applications);
    });
}

QString PageAddress(const QString& page)
{
    return "http://localhost/cgi-bin/page/show?path=" + page;
}
