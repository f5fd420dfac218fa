#pragma once

#include "Attack.h"

#include <atomic>
#include <thread>
#include <vector>

namespace torture {

/// Many callers at once that send hostile messages until the deadline.
class Hostility {
public:
    Hostility(Chance& chance, QDeadlineTimer deadline);
    ~Hostility();
    Hostility(const Hostility&) = delete;
    Hostility& operator=(const Hostility&) = delete;

    /// Waits for the deadline.
    void Finish();
    /// Does not wait for it.
    void Stop();

    /// Notes what was sent and what came back; call it when all has ended.
    void Note(Findings& findings) const;

    /// \return how many messages have been sent so far
    int Sent() const { return m_sent; }

private:
    void Run(std::uint64_t seed);
    void SendOne(BusClient& client, const Message& message, bool wait);

    QDeadlineTimer m_deadline;
    std::atomic<bool> m_stopped{false};
    std::atomic<int> m_sent{0};
    std::atomic<int> m_answered{0};
    std::atomic<int> m_refused{0};
    std::atomic<int> m_unanswered{0};
    std::atomic<int> m_dropped{0};
    std::vector<std::thread> m_callers;
};

} // namespace torture
