#include "Json.h"

#include "common/Output.h"

#include <QDBusArgument>
#include <QDBusVariant>
#include <QJsonDocument>

#include <algorithm>

namespace kxctl {
namespace {

QVariant FromArgument(const QDBusArgument& argument)
{
    QVariantList list;
    QVariantMap map;
    switch (argument.currentType()) {
    case QDBusArgument::ArrayType:
        argument.beginArray();
        while (!argument.atEnd()) {
            list.append(Plain(argument.asVariant()));
        }
        argument.endArray();
        return list;
    case QDBusArgument::MapType:
        argument.beginMap();
        while (!argument.atEnd()) {
            argument.beginMapEntry();
            const QString key = argument.asVariant().toString();
            map.insert(key, Plain(argument.asVariant()));
            argument.endMapEntry();
        }
        argument.endMap();
        return map;
    default:
        return Plain(argument.asVariant());
    }
}

QByteArray ToJson(const QVariant& value, QJsonDocument::JsonFormat format)
{
    return QJsonDocument::fromVariant(Plain(value)).toJson(format).trimmed();
}

} // namespace

QVariant Plain(const QVariant& value)
{
    if (value.userType() == qMetaTypeId<QDBusArgument>()) {
        return FromArgument(value.value<QDBusArgument>());
    }
    if (value.userType() == qMetaTypeId<QDBusVariant>()) {
        return Plain(value.value<QDBusVariant>().variant());
    }
    if (value.userType() == QMetaType::QVariantMap) {
        QVariantMap map = value.toMap();
        std::transform(map.begin(), map.end(), map.begin(), Plain);
        return map;
    }
    if (value.userType() == QMetaType::QVariantList) {
        QVariantList list = value.toList();
        std::transform(list.begin(), list.end(), list.begin(), Plain);
        return list;
    }
    return value;
}

void PrintJson(const QVariant& value, bool isOneLine)
{
    // Control characters stand inside of texts only, where JSON has the same escapes.
    const auto format = isOneLine ? QJsonDocument::Compact : QJsonDocument::Indented;
    const QString json = QString::fromUtf8(ToJson(value, format));
    for (const QString& line : json.split('\n')) {
        cli::Print(cli::Printable(line));
    }
}

QString ToText(const QVariant& value)
{
    const QVariant plain = Plain(value);
    switch (plain.userType()) {
    case QMetaType::Bool:
        return plain.toBool() ? "yes" : "no";
    case QMetaType::QVariantMap:
    case QMetaType::QVariantList:
        return QString::fromUtf8(ToJson(plain, QJsonDocument::Compact));
    default:
        return plain.toString();
    }
}

} // namespace kxctl
