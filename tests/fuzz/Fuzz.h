#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QString>

/// Each target defines this: it tries one input, and ends the program with Require when a property does not
/// hold. Crashes, sanitizer reports and inputs that take too long are found without its help.
void TryInput(const QByteArray& input);

/// Ends the program, which the fuzzer reports as a finding, unless \a holds.
void Require(bool holds, const char* property);

/// Text as it can come over the bus or out of a document: UTF-8, no NUL.
QString TextOf(const QByteArray& bytes);

/// Takes the first line off an input. In the line a carriage return stands for a line end, so that inputs of
/// several texts stay readable.
QByteArray TakeLine(QByteArray& input);

/// Replaces a file of the private root.
void PutFile(const char* path, const QByteArray& content);

/// \return the content of a file of the private root; null when there is none
QByteArray FileContent(const char* path);

/// The last record that went to the platform's log.
struct LastRecord {
    int priority = -1;
    QByteArray file;
    QByteArray function;
    int line = 0;
    QByteArray text;
};
const LastRecord& TheLastRecord();
