#include "server/system/SmallFile.h"

#include "misc/UniqueFd.h"
#include "server/system/Server.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace core::system {
namespace {

constexpr mode_t kFlagFileMode = 0660;

UniqueFd OpenForWriting(const char* path, mode_t mode, const char* action)
{
    UniqueFd fd(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode));
    if (!fd) {
        throw std::runtime_error(SystemFailure(action, path));
    }
    return fd;
}

} // namespace

std::string SystemFailure(const char* action, const char* path)
{
    const std::string reason = std::strerror(errno);
    return std::string("could not ") + action + " '" + path + "', " + reason;
}

void WriteFile(const char* path, const QByteArray& content, mode_t mode)
{
    const UniqueFd fd = OpenForWriting(path, mode, "open file");
    const char* rest = content.constData();
    const char* const end = rest + content.size();
    while (rest != end) {
        const ssize_t written = write(fd.Get(), rest, static_cast<size_t>(end - rest));
        if (written < 0) {
            throw std::runtime_error(SystemFailure("write to file", path));
        }
        rest += written;
    }
}

void DeleteFile(const char* path)
{
    if (Exists(path) && unlink(path) != 0) {
        throw std::runtime_error(SystemFailure("delete file", path));
    }
}

void SetFlagFile(bool present, const char* path)
{
    if (!present) {
        DeleteFile(path);
    } else if (!Exists(path)) {
        OpenForWriting(path, kFlagFileMode, "create file");
    }
}

} // namespace core::system
