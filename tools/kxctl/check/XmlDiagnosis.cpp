#include "XmlDiagnosis.h"

#include "server/applications/appconf/XmlLimits.h"

#include <QDomDocument>

namespace kxctl::check {
namespace {

Problem At(int line, int column, const QString& text)
{
    const QString reason = text.endsWith('.') ? text.chopped(1) : text;
    return {
        Severity::Error,
        "app.conf",
        line,
        {},
        QStringLiteral("%1 (column %2); nothing of the file is read").arg(reason, QString::number(column))};
}

} // namespace

Problem DiagnoseXml(const QByteArray& xml)
{
    if (const auto flaw = core::configuration::FindXmlFlaw(QString::fromUtf8(xml))) {
        return At(flaw->line, flaw->column, flaw->reason);
    }
    QDomDocument document;
    QString text;
    int line = 0;
    int column = 0;
    document.setContent(xml, false, &text, &line, &column);
    return At(line, column, "not well-formed: " + text);
}

} // namespace kxctl::check
