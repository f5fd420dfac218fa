#include "server/dbus/VectorOfPairSS.h"

#include <QDBusMetaType>

void RegisterVectorOfPairSS()
{
    qRegisterMetaType<QVectorOfPairSS>("QVectorOfPairSS");
    qDBusRegisterMetaType<QVectorOfPairSS>();
}

QDBusArgument& operator<<(QDBusArgument& argument, const QVectorOfPairSS& pairs)
{
    argument.beginMap(QMetaType::QString, QMetaType::QString);
    for (const auto& pair : pairs) {
        argument.beginMapEntry();
        argument << pair.first << pair.second;
        argument.endMapEntry();
    }
    argument.endMap();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, QVectorOfPairSS& pairs)
{
    argument.beginMap();
    while (!argument.atEnd()) {
        QPair<QString, QString> pair;
        argument.beginMapEntry();
        argument >> pair.first >> pair.second;
        argument.endMapEntry();
        pairs.append(pair);
    }
    argument.endMap();
    return argument;
}
