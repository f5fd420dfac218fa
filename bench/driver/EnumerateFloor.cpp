#include "EnumerateFloor.h"

#include "Applications.h"

#include <fcntl.h>
#include <grp.h>
#include <pugixml.hpp>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <stdexcept>

namespace kxbench {
namespace {

constexpr auto kTree = "/var/run/www";
constexpr std::array<const char*, 5> kPublished{kTree, "/var/run/www/cgi-bin", "/var/run/www/html",
                                                "/var/run/www/files", "/var/run/sockets"};

void Parse(const std::string& home)
{
    std::array<char, 65536> text{};
    const int fd = open((home + "/app.conf").c_str(), O_RDONLY | O_CLOEXEC);
    struct stat info = {};
    fstat(fd, &info);
    const ssize_t size = read(fd, text.data(), text.size());
    close(fd);
    pugi::xml_document document;
    if (size <= 0 || !document.load_buffer_inplace(text.data(), static_cast<size_t>(size))) {
        throw std::runtime_error(home + "/app.conf");
    }
}

void Look(const std::string& home, const std::string& name, struct stat& owner)
{
    struct stat info = {};
    std::array<char, 256> target{};
    stat(home.c_str(), &owner);
    stat((home + "/cgi-bin").c_str(), &info);
    for (const char* directory : kPublished) {
        stat(directory, &info);
    }
    for (size_t i = 1; i <= 3; ++i) {
        const std::string link = std::string(kPublished[i]) + '/' + name;
        if (readlink(link.c_str(), target.data(), target.size()) < 0) {
            throw std::runtime_error(link);
        }
    }
}

void Publish(const struct stat& owner)
{
    static_cast<void>(getpwuid(owner.st_uid));
    static_cast<void>(getgrgid(owner.st_gid));
    for (const char* directory : kPublished) {
        const int fd = open(directory, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fchown(fd, 0, 0) != 0 || fchmod(fd, 0777) != 0) {
            throw std::runtime_error(directory);
        }
        close(fd);
    }
}

} // namespace

void RunFloor(int applications, Floor floor)
{
    for (int i = 0; i < applications; ++i) {
        const std::string name = ApplicationName(i);
        const std::string home = "/home/" + name;
        struct stat owner = {};
        Parse(home);
        Look(home, name, owner);
        if (floor == Floor::Publish) {
            Publish(owner);
        }
    }
}

} // namespace kxbench
