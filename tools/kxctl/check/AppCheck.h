#pragma once

#include <QString>
#include <QVariantMap>
#include <QVector>

namespace kxctl::check {

enum class Severity {
    Error,  ///< something of the application does not work, or is dropped
    Warning ///< works, but perhaps not as meant
};

/// Something that is wrong with an application's directory.
struct Problem {
    Severity severity;
    QString file;    ///< relative to the directory; empty for the directory itself
    int line;        ///< 0 when unknown
    QString element; ///< name of the element of app.conf; empty for none
    QString text;
};

using Problems = QVector<Problem>;

/// What was found in an application's directory.
struct Report {
    QString name;
    QString directory;
    /// The directory's own problems, then those of app.conf in file order, then those of its programs.
    Problems problems;
    QVariantMap settings; ///< as the daemon would have them

    void Add(Severity severity, const QString& file, const QString& text)
    {
        problems.append({severity, file, 0, {}, text});
    }
};

/// Checks an application directory as the daemon would take it if it were /home/<name>. Nothing is changed
/// and no daemon is needed.
///
/// \param directory  absolute path
Report CheckApplication(const QString& directory, const QString& name);

} // namespace kxctl::check
