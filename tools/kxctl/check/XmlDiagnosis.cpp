#include "XmlDiagnosis.h"

#include "server/applications/appconf/XmlReader.h"

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
    QDomDocument document;
    core::configuration::XmlError error;
    core::configuration::ParseXml(xml, document, &error);
    return At(error.line, error.column, "not well-formed: " + error.text);
}

} // namespace kxctl::check
