#include "server/applications/appconf/AccountNames.h"

#include <grp.h>
#include <pwd.h>

namespace core::configuration {
namespace {

/// Of several accounts with one id, a search finds the first.
void AddFirst(QHash<quint32, QString>& names, quint32 id, const char* name)
{
    if (!names.contains(id)) {
        names.insert(id, QString::fromLocal8Bit(name));
    }
}

} // namespace

AccountNames::Names AccountNames::ListUsers()
{
    Names names;
    setpwent();
    while (const struct passwd* user = getpwent()) {
        AddFirst(names, user->pw_uid, user->pw_name);
    }
    endpwent();
    return names;
}

AccountNames::Names AccountNames::ListGroups()
{
    Names names;
    setgrent();
    while (const struct group* group = getgrent()) {
        AddFirst(names, group->gr_gid, group->gr_name);
    }
    endgrent();
    return names;
}

QString AccountNames::OfUser(uid_t id)
{
    if (!m_users) {
        m_users = ListUsers();
    }
    const auto known = m_users->constFind(id);
    if (known != m_users->constEnd()) {
        return *known;
    }
    // A source of accounts need not let itself be listed.
    const struct passwd* user = getpwuid(id);
    return user != nullptr ? QString::fromLocal8Bit(user->pw_name) : QString();
}

QString AccountNames::OfGroup(gid_t id)
{
    if (!m_groups) {
        m_groups = ListGroups();
    }
    const auto known = m_groups->constFind(id);
    if (known != m_groups->constEnd()) {
        return *known;
    }
    const struct group* group = getgrgid(id);
    return group != nullptr ? QString::fromLocal8Bit(group->gr_name) : QString();
}

} // namespace core::configuration
