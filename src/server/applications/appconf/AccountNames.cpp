#include "server/applications/appconf/AccountNames.h"

#include <grp.h>
#include <pwd.h>

#include <cstdio>
#include <memory>

namespace core::configuration {
namespace {

struct CloseFile {
    void operator()(std::FILE* file) const { static_cast<void>(std::fclose(file)); }
};

using File = std::unique_ptr<std::FILE, CloseFile>;

File Open(const char* path)
{
    return File(std::fopen(path, "re"));
}

/// Of several accounts with one id, a search finds the first. Names with a sign are directives to the search.
void AddFirst(QHash<quint32, QString>& names, quint32 id, const char* name)
{
    if (*name != '+' && *name != '-' && !names.contains(id)) {
        names.insert(id, QString::fromLocal8Bit(name));
    }
}

} // namespace

AccountNames::Names AccountNames::ReadUsers()
{
    Names names;
    const File file = Open("/etc/passwd");
    while (const struct passwd* user = file ? fgetpwent(file.get()) : nullptr) {
        AddFirst(names, user->pw_uid, user->pw_name);
    }
    return names;
}

AccountNames::Names AccountNames::ReadGroups()
{
    Names names;
    const File file = Open("/etc/group");
    while (const struct group* group = file ? fgetgrent(file.get()) : nullptr) {
        AddFirst(names, group->gr_gid, group->gr_name);
    }
    return names;
}

QString AccountNames::OfUser(uid_t id)
{
    if (!m_users) {
        m_users = ReadUsers();
    }
    const auto known = m_users->constFind(id);
    if (known != m_users->constEnd()) {
        return *known;
    }
    const struct passwd* user = getpwuid(id);
    return user != nullptr ? QString::fromLocal8Bit(user->pw_name) : QString();
}

QString AccountNames::OfGroup(gid_t id)
{
    if (!m_groups) {
        m_groups = ReadGroups();
    }
    const auto known = m_groups->constFind(id);
    if (known != m_groups->constEnd()) {
        return *known;
    }
    const struct group* group = getgrgid(id);
    return group != nullptr ? QString::fromLocal8Bit(group->gr_name) : QString();
}

} // namespace core::configuration
