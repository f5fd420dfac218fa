#pragma once

#include <QDebug>
#include <QString>

// Qt 5 defines qInfo as a macro; here it is a function of the logging namespace.
#undef qInfo

/// Prefix of a log statement.
///
/// \param source  the module's path, /pkgs/kx-core/src/...
///
/// Function and line are those of the statement. In a lambda the function would be "operator()": there, use
/// KX_PREFIX_AS with the name that the enclosing function's __func__ has.
#define KX_PREFIX(source) KX_PREFIX_AS(source, __func__)

/// The same for a statement that logs under the name \a function.
#define KX_PREFIX_AS(source, function)                                                                       \
    ::com::veltrasys::common::qt::GetPrefix(source, function, __LINE__, false)

namespace com::veltrasys::common::qt {

/// Stream factories for the priorities that Qt lacks. What is streamed into the result is handed to the
/// message handler as one record when the QDebug is destroyed. May be used from any thread.
QDebug qInfo();   ///< message type 10, priority 6
QDebug qNotice(); ///< message type 11, priority 5
QDebug qError();  ///< message type 12, priority 3
QDebug qAlert();  ///< message type 13, priority 1
QDebug qEmerg();  ///< message type 14, priority 0

/// Builds the prefix that every log statement streams first.
///
/// \param file      source path; only what follows the last "/" is used
/// \param function  name of the function that logs
/// \param line      line of the statement
/// \param withTime  false: "file|function|line|"; true: "[hh:mm:ss.zzz] file - function(),line:" with the
///                  local time
QString GetPrefix(const QString& file, const QString& function, int line, bool withTime);

/// Routes Qt's messages to the platform log. One static instance installs the handler before main runs.
class LogInitializer {
public:
    /// Installs the message handler of the process.
    LogInitializer();

    /// Passes one message on to VLS_PrintLog, with file, function and line taken from its prefix (empty,
    /// empty and 0 for a message without one).
    ///
    /// \param type  a QtMsgType or one of the factories' values 10 to 14; an int, because the latter lie
    ///              outside what a QtMsgType can hold
    /// \param msg   the message in the local 8-bit encoding
    static void QtMsgHandler(int type, const char* msg);

    /// Splits a message at its prefix.
    ///
    /// \param msg       the message; its prefix stands in double quotes, as QDebug writes a QString
    /// \param file, function, line  receive the parts of the prefix
    /// \param text      receives what follows the prefix; the whole message when the closing quote is
    ///                  missing
    /// \return false when the prefix is missing or incomplete, its file or function empty or its line 0;
    ///         \a text is then untouched
    static bool SplitMsg(const QString& msg, QString& file, QString& function, int& line, QString& text);
};

} // namespace com::veltrasys::common::qt
