#include "EnumerateFloor.h"

#include "Applications.h"

#include <fcntl.h>
#include <libxml/parser.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <stdexcept>

namespace kxbench {
namespace {

constexpr auto kTree = "/var/run/www";
constexpr std::array<const char*, 5> kPublished{kTree, "/var/run/www/cgi-bin", "/var/run/www/html",
                                                "/var/run/www/files", "/var/run/sockets"};

bool Parse(const char* text, size_t size)
{
    xmlDoc* document = xmlReadMemory(text, static_cast<int>(size), nullptr, nullptr, XML_PARSE_NONET);
    xmlFreeDoc(document);
    return document != nullptr;
}

void Read(const std::string& home)
{
    std::array<char, 65536> text{};
    const int fd = open((home + "/app.conf").c_str(), O_RDONLY | O_CLOEXEC);
    struct stat info = {};
    fstat(fd, &info);
    const ssize_t size = read(fd, text.data(), text.size());
    close(fd);
    if (size <= 0 || !Parse(text.data(), static_cast<size_t>(size))) {
        throw std::runtime_error(home + "/app.conf");
    }
}

void Publish(const std::string& home, const std::string& name)
{
    struct stat info = {};
    std::array<char, 256> target{};
    stat(home.c_str(), &info);
    stat((home + "/cgi-bin").c_str(), &info);
    for (const char* directory : kPublished) {
        if (chown(directory, 0, 0) != 0 || chmod(directory, 0777) != 0) {
            throw std::runtime_error(directory);
        }
    }
    for (size_t i = 1; i <= 3; ++i) {
        const std::string link = std::string(kPublished[i]) + '/' + name;
        if (readlink(link.c_str(), target.data(), target.size()) < 0) {
            throw std::runtime_error(link);
        }
    }
}

} // namespace

void RunFloor(int applications)
{
    for (int i = 0; i < applications; ++i) {
        const std::string name = ApplicationName(i);
        const std::string home = "/home/" + name;
        Read(home);
        Publish(home, name);
    }
}

} // namespace kxbench
