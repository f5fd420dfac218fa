#include "Applications.h"

#include "Process.h"
#include "SampleConfiguration.h"

#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <system_error>

namespace fs = std::filesystem;

namespace kxbench {
namespace {

/// The accounts of the private root without those of applications.
std::string WithoutApplications(const char* path)
{
    std::ifstream file(path);
    std::string kept;
    for (std::string line; std::getline(file, line);) {
        const bool isApplication = line.find(":x:4") != std::string::npos;
        kept += isApplication ? "" : line + '\n';
    }
    return kept;
}

void WriteAccounts(int count)
{
    static const std::string otherUsers = WithoutApplications("/etc/passwd");
    static const std::string otherGroups = WithoutApplications("/etc/group");
    std::ostringstream users;
    std::ostringstream groups;
    users << otherUsers;
    groups << otherGroups;
    for (int i = 0; i < count; ++i) {
        const std::string name = ApplicationName(i);
        const unsigned id = kFirstAccount + i;
        users << name << ":x:" << id << ':' << id << "::/home/" << name << ":/bin/sh\n";
        groups << name << ":x:" << id << ":\n";
    }
    std::ofstream("/etc/passwd") << users.str();
    std::ofstream("/etc/group") << groups.str();
}

void Install(int number)
{
    const fs::path home = "/home/" + ApplicationName(number);
    fs::create_directories(home / "bin");
    fs::create_directories(home / "html");
    std::ofstream(home / "app.conf") << kSampleConfiguration;
    fs::copy_file(std::string(kPrograms) + "stamp", home / "bin/stamp");
    const unsigned id = kFirstAccount + number;
    if (chown(home.c_str(), id, id) != 0) {
        throw std::system_error(errno, std::generic_category(), home);
    }
}

} // namespace

std::string ApplicationName(int number)
{
    std::ostringstream name;
    name << "app" << std::setw(4) << std::setfill('0') << number;
    return name.str();
}

void InstallApplications(int count)
{
    for (const char* parent : {"/home", "/var/run/www"}) {
        fs::create_directories(parent);
        for (const auto& entry : fs::directory_iterator(parent)) {
            fs::remove_all(entry);
        }
    }
    WriteAccounts(count);
    for (int i = 0; i < count; ++i) {
        Install(i);
    }
}

} // namespace kxbench
