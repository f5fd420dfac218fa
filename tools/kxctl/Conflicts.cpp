#include "Conflicts.h"

#include <QFile>
#include <QFileInfo>
#include <QStringList>

#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

namespace kxctl {
namespace {

// Key of a setting that one application alone may have, and what happens otherwise.
constexpr std::array<std::pair<const char*, const char*>, 2> kOnlyOnce{{
    {"showOnBoot", "<show_on_boot> is also set by %1; the default form is shown instead"},
    {"cgiBinDefault", "<cgi_bin_default> is also set by %1; none becomes the default"},
}};

} // namespace

QVariantMap FindConflicts(const QVector<QVariantMap>& applications)
{
    QVariantMap conflicts;
    for (const auto& [key, text] : kOnlyOnce) {
        QStringList names;
        for (const QVariantMap& application : applications) {
            const QString value = application.value(key).toString();
            if (!value.isEmpty() && value != "false") {
                names.append(application.value("name").toString());
            }
        }
        for (const QString& name : names.size() > 1 ? names : QStringList()) {
            QStringList others = names;
            others.removeOne(name);
            conflicts[name] = conflicts[name].toStringList() << QString(text).arg(others.join(", "));
        }
    }
    return conflicts;
}

QVariant DefaultApplication()
{
    for (const char* name : {"desktop", "productiontest", "systemconfig", "systemutils"}) {
        const QString form = QStringLiteral("/home/%1/html/index.html").arg(name);
        if (QFileInfo(form).isFile()) {
            return name;
        }
        if (access(QFile::encodeName(form).constData(), F_OK) != 0 && errno == EACCES) {
            return {};
        }
    }
    return "";
}

} // namespace kxctl
