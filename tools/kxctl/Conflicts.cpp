#include "Conflicts.h"

#include <QFile>
#include <QFileInfo>
#include <QStringList>

#include <unistd.h>

#include <array>
#include <cerrno>

namespace kxctl {
namespace {

struct Rule {
    const char* key;
    const char* text;
};

constexpr std::array<Rule, 2> kOnlyOnce{{
    {"showOnBoot", "<show_on_boot> is also set by %1; the default form is shown instead"},
    {"cgiBinDefault", "<cgi_bin_default> is also set by %1; none becomes the default"},
}};

} // namespace

QVariantMap FindConflicts(const QVector<QVariantMap>& applications)
{
    QVariantMap conflicts;
    for (const Rule& rule : kOnlyOnce) {
        QStringList names;
        for (const QVariantMap& application : applications) {
            const QString value = application.value(rule.key).toString();
            if (!value.isEmpty() && value != "false") {
                names.append(application.value("name").toString());
            }
        }
        for (const QString& name : names.size() > 1 ? names : QStringList()) {
            QStringList others = names;
            others.removeOne(name);
            conflicts[name] = conflicts[name].toStringList() << QString(rule.text).arg(others.join(", "));
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
