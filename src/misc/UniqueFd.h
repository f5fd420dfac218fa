#pragma once

#include <unistd.h>

#include <utility>

/// Owns one file descriptor and closes it at the end of its life. Movable, not copyable; -1 means none.
class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) noexcept : m_fd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : m_fd(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        Reset(other.Release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { Reset(); }

    int Get() const noexcept { return m_fd; }
    explicit operator bool() const noexcept { return m_fd >= 0; }

    /// Gives the descriptor up without closing it; the caller owns it from now on.
    int Release() noexcept { return std::exchange(m_fd, -1); }

    /// Closes the descriptor held, if any, and takes \a fd. A failing close is not reported.
    void Reset(int fd = -1) noexcept
    {
        const int old = std::exchange(m_fd, fd);
        if (old >= 0) {
            close(old);
        }
    }

private:
    int m_fd;
};
