// The XML that callers of the browser service hand over.
#pragma once

#include <QJsonArray>
#include <QString>
#include <QStringList>

#include <optional>

// What UpdatePage changes: each child of the root names an element of the page by "id"; its text becomes the
// element's content (of a form field the value), or the value of the attribute named by "attribute":
//
//     <page><total id="sum">12.50</total><x id="state" attribute="class">paid</x></page>
//
// One object {id, attribute, text} for each; nothing when the text is not well-formed, is nested deeper or
// has a child without an id.
std::optional<QJsonArray> ParseUpdate(const QString& xml);

struct PromptMarkup {
    QString label;
    QStringList buttons;
};

// What PromptLabelButton shows: <prompt><label>Insert card</label><button>Cancel</button></prompt>, with one
// label and any number of buttons. Nothing when the text is anything else.
std::optional<PromptMarkup> ParsePrompt(const QString& xml);
