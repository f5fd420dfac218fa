// Paths of app.conf and of callers.

#include "Fuzz.h"

#include "misc/Utils.h"
#include "server/applications/appconf/AppConfigParser.h"

#include <QStringList>

namespace {

const QString kHome = QStringLiteral("/home/pay");

/// Walks a path part by part, as the kernel does on a tree without links.
QString Walk(const QString& path)
{
    QStringList walked;
    for (const QString& part : path.split('/', Qt::SkipEmptyParts)) {
        if (part == "..") {
            walked.isEmpty() ? walked.clear() : walked.removeLast();
        } else if (part != ".") {
            walked.append(part);
        }
    }
    return '/' + walked.join('/');
}

} // namespace

void TryInput(const QByteArray& input)
{
    const QString path = TextOf(input);
    const QString normal = FileSystem::NormalizeFilePath(path, kHome);
    Require(normal.isEmpty() == path.isEmpty(), "only nothing becomes nothing");
    if (path.isEmpty()) {
        return;
    }
    Require(normal.startsWith('/'), "a path becomes absolute");
    Require(FileSystem::NormalizeFilePath(normal, kHome) == normal, "what is normal stays as it is");
    Require(!normal.contains("//") && !(normal + '/').contains("/./"), "a path is clean");

    const bool isInHome = path.startsWith("./") || path.startsWith("~/");
    const QString given = path.startsWith('/') ? path : kHome + '/' + (isInHome ? path.mid(2) : path);
    Require(Walk(normal) == Walk(given), "it leads to the same file");

    core::configuration::ApplicationConfig config(QStringLiteral("pay"));
    const QString accepted = core::configuration::Parser::NormalizeFilePath(path, config);
    Require(accepted.isEmpty() || accepted == normal, "a record holds normal paths");
}
