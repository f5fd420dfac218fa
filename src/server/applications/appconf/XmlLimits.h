#pragma once

#include <QString>

#include <optional>

namespace core::configuration {

/// Largest app.conf that is read, in bytes, and most text that its entities may expand to, in characters.
constexpr int kMaxXmlSize = 1024 * 1024;

/// Deepest nesting of elements that is read.
constexpr int kMaxXmlDepth = 100;

/// Most declarations of a document type, none of them of a parameter entity, and most words of one tag or
/// declaration; an attribute makes one to four.
constexpr int kMaxXmlDeclarations = 256;
constexpr int kMaxXmlWords = 256;

/// Why a text is not read, and where that shows.
struct XmlFlaw {
    QString reason;
    int line = 0;   ///< from 1
    int column = 0; ///< from 0
};

/// Tells whether the DOM reader can take a text without harm: it recurses once per level, expands every
/// entity in memory and compares each declaration and each attribute with those before it, so a file of a few
/// kilobytes could end the daemon or hold it up for half a minute.
/// Whether it is well-formed is left to that reader, but for a text with entities of its own.
/// \return the first limit that \a xml exceeds, or why it is not well-formed; nothing when it can be read
std::optional<XmlFlaw> FindXmlFlaw(const QString& xml);

} // namespace core::configuration
