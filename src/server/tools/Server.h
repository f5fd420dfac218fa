#pragma once

#include <QObject>
#include <QString>

#include <memory>

namespace com::veltrasys {
class Registry;
}

namespace core::tools {

/// The object behind /Tools: sets clock and time zone, remembers who set them, stores platform variables for
/// the boot scripts and switches the audio-payment daemon on or off.
///
/// Everything it keeps lives outside the process: the clock, files below /etc and the registry key
/// "%platform.timeInfoSource". To be used from the event loop's thread only. Whether the registry
/// could be written is not checked.
class Server : public QObject {
    Q_OBJECT

public:
    explicit Server(QObject* parent = nullptr);

    /// Sets the system clock and writes /etc/time_offset. The hardware clock is left alone.
    ///
    /// \param str         local time of the current zone, in ASCII: "%Y-%m-%d %T" (19 characters), "%Y-%m-%d"
    ///                    (10, keeps the time of day) or "%T" (8, keeps the date)
    /// \param infoSource  stored as the source of the time information, whichever was stored before, and
    ///                    announced with TimeInfoChanged; empty: neither
    /// \return 0; -1 when \a str is no such time; -2 when the clock cannot be set; -3 when /etc/time_offset
    ///         cannot be written; -4 when the current time cannot be broken down
    int SetSystemTime(const QString& str, const QString& infoSource);

    /// Points /etc/localtime to a zone file. Does nothing at all, successfully, when it points there already.
    ///
    /// \param timeZone    path below /usr/share/zoneinfo/, for example "Europe/Berlin"; empty: removes the
    ///                    link, which means UTC
    /// \param infoSource  as for SetSystemTime
    /// \return 0; 1 when the zone lies elsewhere or does not exist ("Time zone file"), or the link cannot be
    ///         removed ("Unable to remove") or made ("Error creating time zone symlink to"), each logged at
    ///         error level
    int SetTimeZone(const QString& timeZone, const QString& infoSource);

    /// \return the current UTC time as "%Y-%m-%d %T"
    static QString GetUTCTime();

    /// \return the name of the current zone; empty when /etc/localtime is no link ("readlink() failed: ") or
    ///         points outside a zone directory ("Unexpected time zone symlink:"), both at error level
    static QString GetTimeZone();

public slots:
    /// SetSystemTime(str, "MANUAL"); -3 after an exception ("Unexpected exception", error level).
    int SetSystemTime(const QString& str);

    /// SetTimeZone(timeZone, "MANUAL"); 1 after an exception ("Unexpected exception", error level).
    int SetTimeZone(const QString& timeZone);

    /// Sets clock and zone together, unless a source of higher precedence has set them before, and emits
    /// TimeInfoChanged once.
    ///
    /// \param utcTime     time in UTC in one of the forms of SetSystemTime; empty: leaves the clock alone
    /// \param timeZone    as for SetTimeZone; empty: UTC
    /// \param infoSource  "HOST", "MANUAL", "HUB" or "UNKNOWN", highest precedence first; empty together with
    ///                    \a timeZone: "UNKNOWN"
    /// \return 0; 1 when the source is none of the four ("Invalid infoSource"), is outranked ("Unable to set
    ///         time info"), or time ("Unable to set utcTime") or zone ("Unable to set timeZone") cannot be
    ///         set, or after an exception ("Unexpected exception"), each logged at error level. After a
    ///         failure to set the time the zone is UTC.
    int SetTimeInfo(const QString& utcTime, const QString& timeZone, const QString& infoSource);

    /// Stores "UNKNOWN" as the source, so that any source may set the time again. Emits nothing.
    /// \return always 0
    int ResetTimeInfoSource();

    /// Writes the line `export NAME="VALUE"` to /etc/rc.d/rc.platform.conf, which must exist: in place of the
    /// first line that contains the name, otherwise at the end. The file is not truncated, so that what the
    /// new text does not cover of a longer old one stays behind it.
    ///
    /// \param variable_name   not checked; `*`, `?` and `[...]` work as QRegExp's wildcards when looking for
    ///                        the line
    /// \param variable_value  may hold letters, digits, blanks and what else is not punctuation
    /// \return 0; -1 when the value holds a refused character, or the file cannot be opened or written.
    ///         Only an exception is logged ("Unexpected exception", error level).
    int SaveVariableValue(const QString& variable_name, const QString& variable_value);

    /// Enables (mode 0755) or disables (0644) the start script of the audio-payment daemon; starts and stops
    /// nothing. A failure is logged at error level with the system's error text.
    void EnableAudiopayd(bool enable);

    /// \return whether the audio-payment daemon's start script exists and may be executed by this process
    bool IsAudiopaydEnabled();

signals:
    /// Clock, zone or source were set.
    ///
    /// \param utcTime     current UTC time as "%Y-%m-%d %T"
    /// \param timeZone    name of the zone; empty for UTC without a zone link
    /// \param infoSource  who set them
    void TimeInfoChanged(const QString& utcTime, const QString& timeZone, const QString& infoSource);

private:
    /// Stores the source in the registry and emits TimeInfoChanged with the current time.
    void AnnounceTimeInfo(const QString& timeZone, const QString& infoSource);

    std::shared_ptr<com::veltrasys::Registry> m_registry;
};

} // namespace core::tools
