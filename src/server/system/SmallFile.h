#pragma once

#include <QByteArray>

#include <sys/types.h>

#include <string>

namespace core::system {

/// Holds the hub identifier, which both a system call and the registry can change.
constexpr auto kHubIdFile = "/etc/platform/sys/hubID";
constexpr mode_t kConfigFileMode = 0664;

/// Replaces the content of a file, which is created when missing.
/// \param mode  permission bits of a new file, before the umask
/// \throws std::runtime_error "could not open file '<path>', <reason>" or "could not write to file ..."
void WriteFile(const char* path, const QByteArray& content, mode_t mode);

/// Creates an empty file (mode 0660) or removes it, so that it exists as \a present says; one that does
/// already is left alone.
/// \throws std::runtime_error "could not create file '<path>', <reason>" or "could not delete file ..."
void SetFlagFile(bool present, const char* path);

/// Removes a file if it exists.
/// \throws std::runtime_error "could not delete file '<path>', <reason>"
void DeleteFile(const char* path);

/// \return "could not <action> '<path>', <system error text>" for the present errno
std::string SystemFailure(const char* action, const char* path);

} // namespace core::system
