#pragma once

#include <QHash>
#include <QString>

#include <sys/types.h>

#include <optional>

namespace core::configuration {

/// Names of users and groups for a pass over many ids. The C library reads its lists from the beginning for
/// every id; this reads /etc/passwd and /etc/group once each, at the first question, and asks the library
/// only for what is not in there.
///
/// Answers as getpwuid and getgrgid do where these files come before other sources of accounts. What changes
/// after the first question is not seen. Not thread-safe.
class AccountNames {
public:
    /// \return the user's name; empty for an id without an account
    QString OfUser(uid_t id);

    /// \return the group's name; empty for an id without a group
    QString OfGroup(gid_t id);

private:
    using Names = QHash<quint32, QString>;

    static Names ReadUsers();
    static Names ReadGroups();

    std::optional<Names> m_users;
    std::optional<Names> m_groups;
};

} // namespace core::configuration
