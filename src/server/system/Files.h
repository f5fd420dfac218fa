#pragma once

#include <QByteArray>

namespace core::system {

/// Holds the hub identifier, which both a system call and the registry can change.
constexpr auto kHubIdFile = "/etc/platform/sys/hubID";

/// \return whether \a path exists; links are followed
bool Exists(const char* path);

/// Replaces the content of a file; a new one gets mode 0664 under the umask.
/// \throws std::runtime_error "could not open file '<path>', <reason>" or "could not write to file ..."
void WriteFile(const char* path, const QByteArray& content);

/// Removes a file if it exists.
/// \throws std::runtime_error "could not delete file '<path>', <reason>"
void DeleteFile(const char* path);

/// Creates an empty file (mode 0660 under the umask) or removes it, so that it exists as \a present says.
/// \throws std::runtime_error "could not create file '<path>', <reason>" or "could not delete file ..."
void SetFlagFile(bool present, const char* path);

/// Creates a directory (mode 0775 under the umask) unless the path exists; its parent must exist.
/// \throws std::runtime_error "could not create directory '<path>', <reason>"
void CreateDirectory(const char* path);

/// Replaces the content of a configuration file of syslog and restarts syslog, which blocks.
/// \throws std::runtime_error as WriteFile, or "syslogd restarting returns error: <reason>"
void WriteToConfigFileAndRestart(const char* path, const char* text);

} // namespace core::system
