#pragma once

namespace core::applications {

/// User and group ids of application accounts.
constexpr unsigned kFirstApplicationId = 4000;
constexpr unsigned kLastApplicationId = 4999;

/// \return whether a user or group id is that of an application account; an unknown one, all bits set, is not
constexpr bool IsApplicationId(unsigned id)
{
    return id >= kFirstApplicationId && id <= kLastApplicationId;
}

} // namespace core::applications
