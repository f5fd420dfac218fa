#include "server/system/Files.h"

#include "misc/UniqueFd.h"
#include "misc/Utils.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace core::system {
namespace {

constexpr mode_t kFileMode = 0664;
constexpr mode_t kFlagFileMode = 0660;
constexpr mode_t kDirectoryMode = 0775;

[[noreturn]] void ThrowSystemError(const char* action, const char* path)
{
    const char* const reason = std::strerror(errno);
    throw std::runtime_error(std::string(action) + " '" + path + "', " + reason);
}

} // namespace

bool Exists(const char* path)
{
    struct stat info = {};
    return stat(path, &info) == 0;
}

void WriteFile(const char* path, const QByteArray& content)
{
    const UniqueFd fd(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kFileMode));
    if (!fd) {
        ThrowSystemError("could not open file", path);
    }
    const char* rest = content.constData();
    const char* const end = rest + content.size();
    while (rest != end) {
        const ssize_t written = write(fd.Get(), rest, static_cast<size_t>(end - rest));
        if (written == -1) {
            ThrowSystemError("could not write to file", path);
        }
        rest += written;
    }
}

void DeleteFile(const char* path)
{
    if (Exists(path) && unlink(path) != 0) {
        ThrowSystemError("could not delete file", path);
    }
}

void SetFlagFile(bool present, const char* path)
{
    if (!present) {
        DeleteFile(path);
    } else if (!Exists(path)) {
        const UniqueFd fd(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kFlagFileMode));
        if (!fd) {
            ThrowSystemError("could not create file", path);
        }
    }
}

void CreateDirectory(const char* path)
{
    if (!Exists(path) && mkdir(path, kDirectoryMode) != 0) {
        ThrowSystemError("could not create directory", path);
    }
}

void WriteToConfigFileAndRestart(const char* path, const char* text)
{
    WriteFile(path, text);
    if (Misc::ExecShell("/etc/rc.d/init.d/syslog restart") != 0) {
        throw std::runtime_error(std::string("syslogd restarting returns error: ") + std::strerror(errno));
    }
}

} // namespace core::system
