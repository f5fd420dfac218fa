#include "server/dbus/ApplicationList.h"

#include <QDBusMetaType>

void RegisterApplicationList()
{
    qRegisterMetaType<ApplicationList>("QList<QVariantMap>");
    qDBusRegisterMetaType<ApplicationList>();
}
