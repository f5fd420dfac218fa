#include "Pictures.h"

#include <QCryptographicHash>
#include <QRegularExpression>

namespace {

constexpr int kLookMs = 300;

} // namespace

Pictures::Pictures(WebView& view, QString folder) : m_view(view), m_folder(std::move(folder))
{
    if (!m_folder.isEmpty()) {
        connect(&m_timer, &QTimer::timeout, this, &Pictures::Look);
        m_timer.start(kLookMs);
    }
}

void Pictures::Look()
{
    const QImage picture = m_view.grab().toImage();
    if (picture == m_last && !m_view.title().isEmpty()) {
        Add(picture);
    }
    m_last = picture;
}

bool Pictures::Add(const QImage& picture)
{
    if (m_folder.isEmpty() || picture.isNull()) {
        return false;
    }
    const QByteArray bytes(reinterpret_cast<const char*>(picture.constBits()),
                           static_cast<int>(picture.sizeInBytes()));
    const QByteArray hash = QCryptographicHash::hash(bytes, QCryptographicHash::Sha1);
    if (m_seen.contains(hash)) {
        return true;
    }
    m_seen.insert(hash);
    static const QRegularExpression other("[^a-z0-9]+");
    const QString title = m_view.title().toLower().replace(other, "-");
    return picture.save(
        QStringLiteral("%1/%2-%3.png").arg(m_folder).arg(m_seen.size(), 2, 10, QChar('0')).arg(title));
}
