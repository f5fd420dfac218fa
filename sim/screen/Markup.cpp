#include "Markup.h"

#include <QJsonObject>
#include <QXmlStreamReader>

std::optional<QJsonArray> ParseUpdate(const QString& xml)
{
    QXmlStreamReader reader(xml);
    QJsonArray changes;
    reader.readNextStartElement();
    while (reader.readNextStartElement()) {
        const QString id = reader.attributes().value("id").toString();
        const QString attribute = reader.attributes().value("attribute").toString();
        if (id.isEmpty()) {
            return std::nullopt;
        }
        changes.append(QJsonObject{{"id", id}, {"attribute", attribute}, {"text", reader.readElementText()}});
    }
    // What follows the root is read too, so that its mistakes count.
    while (!reader.atEnd()) {
        reader.readNext();
    }
    return reader.hasError() ? std::nullopt : std::make_optional(changes);
}

std::optional<PromptMarkup> ParsePrompt(const QString& xml)
{
    QXmlStreamReader reader(xml);
    PromptMarkup prompt;
    bool understood = reader.readNextStartElement();
    while (reader.readNextStartElement()) {
        if (reader.name() == "button") {
            prompt.buttons.append(reader.readElementText());
        } else if (reader.name() == "label" && prompt.label.isEmpty()) {
            prompt.label = reader.readElementText();
        } else {
            understood = false;
            reader.skipCurrentElement();
        }
    }
    understood = understood && !reader.hasError() && !prompt.label.isEmpty();
    return understood ? std::make_optional(prompt) : std::nullopt;
}
