#include "server/dbus/ApplicationList.h"

#include <QDBusMetaType>

#include <algorithm>
#include <numeric>
#include <vector>

namespace {

/// Three quarters of what the bus takes; keys, signatures and padding are estimated.
constexpr qint64 kMaxReplyBytes = 24LL * 1024 * 1024;

qint64 Utf8Bytes(const QString& text)
{
    return std::accumulate(text.begin(), text.end(), qint64{0}, [](qint64 sum, QChar unit) {
        // Each half of a surrogate pair counts for two of its four bytes.
        const bool isHalf = unit.isSurrogate();
        return sum + (unit.unicode() < 0x80 ? 1 : unit.unicode() < 0x800 || isHalf ? 2 : 3);
    });
}

qint64 EstimateBytes(const QVariant& value);

qint64 EstimateBytes(const QVariantMap& map)
{
    constexpr qint64 kKeySignatureAndPadding = 48;
    qint64 bytes = 0;
    for (const QVariant& value : map) {
        bytes += kKeySignatureAndPadding + EstimateBytes(value);
    }
    return bytes;
}

qint64 EstimateBytes(const QVariant& value)
{
    switch (static_cast<QMetaType::Type>(value.type())) {
    case QMetaType::QString:
        return Utf8Bytes(value.toString());
    case QMetaType::QVariantMap:
        return EstimateBytes(value.toMap());
    case QMetaType::QVariantList: {
        const QVariantList list = value.toList();
        return std::accumulate(list.begin(), list.end(), qint64{0},
                               [](qint64 sum, const QVariant& item) { return sum + EstimateBytes(item); });
    }
    default:
        return 0;
    }
}

} // namespace

void RegisterApplicationList()
{
    qRegisterMetaType<ApplicationList>("QList<QVariantMap>");
    qDBusRegisterMetaType<ApplicationList>();
}

QStringList LeaveOutTheLargest(ApplicationList& applications)
{
    std::vector<qint64> sizes;
    std::transform(applications.begin(), applications.end(), std::back_inserter(sizes),
                   [](const QVariantMap& application) { return EstimateBytes(application); });
    qint64 total = std::accumulate(sizes.begin(), sizes.end(), qint64{0});
    QStringList leftOut;
    while (total > kMaxReplyBytes) {
        const auto largest = std::max_element(sizes.begin(), sizes.end());
        total -= *largest;
        leftOut += applications.takeAt(static_cast<int>(largest - sizes.begin()))
                       .value(QStringLiteral("name"))
                       .toString();
        sizes.erase(largest);
    }
    return leftOut;
}
