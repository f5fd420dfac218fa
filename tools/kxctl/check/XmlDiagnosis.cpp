#include "XmlDiagnosis.h"

#include "server/applications/appconf/XmlReader.h"

#include <QDomDocument>
#include <QXmlStreamReader>

#include <optional>

namespace kxctl::check {
namespace {

using core::configuration::kMaxXmlDepth;
using core::configuration::kMaxXmlSize;

Problem At(qint64 line, qint64 column, const QString& text)
{
    return {Severity::Error,
            "app.conf",
            static_cast<int>(line),
            {},
            QStringLiteral("%1 (column %2); nothing of the file is read").arg(text).arg(column)};
}

Problem At(const QXmlStreamReader& reader, const QString& text)
{
    return At(reader.lineNumber(), reader.columnNumber(), text);
}

qint64 TextOf(const QXmlStreamReader& reader)
{
    qint64 size = reader.text().size();
    for (const QXmlStreamAttribute& attribute : reader.attributes()) {
        size += attribute.value().size();
    }
    return size;
}

/// The flaw that a reader without recursion finds, or the limit that the text exceeds.
std::optional<Problem> FindFlaw(const QByteArray& xml)
{
    QXmlStreamReader reader(xml);
    reader.setNamespaceProcessing(false);
    int depth = 0;
    qint64 text = 0;
    while (!reader.atEnd()) {
        reader.readNext();
        depth += (reader.isStartElement() ? 1 : 0) - (reader.isEndElement() ? 1 : 0);
        text += TextOf(reader);
        if (depth > kMaxXmlDepth) {
            return At(reader, QStringLiteral("elements are nested deeper than %1 levels").arg(kMaxXmlDepth));
        }
        if (text > kMaxXmlSize) {
            return At(reader, QStringLiteral("the text expands to more than %1 bytes").arg(kMaxXmlSize));
        }
    }
    if (reader.hasError()) {
        const QString reason = reader.errorString();
        return At(reader, "not well-formed: " + (reason.endsWith('.') ? reason.chopped(1) : reason));
    }
    return std::nullopt;
}

} // namespace

Problem DiagnoseXml(const QByteArray& xml)
{
    if (const std::optional<Problem> flaw = FindFlaw(xml)) {
        return *flaw;
    }
    QDomDocument document;
    QString text;
    int line = 0;
    int column = 0;
    document.setContent(xml, false, &text, &line, &column);
    return At(line, column, "not well-formed: " + text);
}

} // namespace kxctl::check
