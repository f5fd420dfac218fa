#include "server/dbus/ApplicationReply.h"

#include <algorithm>
#include <numeric>

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

void ApplicationReply::Append(const QVariantMap& application)
{
    m_list.append(application);
    m_sizes.push_back(EstimateBytes(application));
}

QStringList ApplicationReply::LeaveOutTheLargest()
{
    qint64 total = std::accumulate(m_sizes.begin(), m_sizes.end(), qint64{0});
    QStringList leftOut;
    while (total > kMaxReplyBytes) {
        const auto largest = std::max_element(m_sizes.begin(), m_sizes.end());
        total -= *largest;
        leftOut += m_list.takeAt(static_cast<int>(largest - m_sizes.begin()))
                       .value(QStringLiteral("name"))
                       .toString();
        m_sizes.erase(largest);
    }
    return leftOut;
}
