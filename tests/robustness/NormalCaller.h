#pragma once

#include <QStringList>

#include <atomic>
#include <chrono>
#include <thread>

namespace torture {

/// Makes each normal call once and compares the answer with the only right one.
/// \return the wrong ones; empty when all are right
QStringList ComplaintsOfNormalCalls();

/// A well-behaved caller beside an attack: while it lives it makes normal calls, one after the other.
class NormalCaller {
public:
    NormalCaller();
    ~NormalCaller();
    NormalCaller(const NormalCaller&) = delete;
    NormalCaller& operator=(const NormalCaller&) = delete;

    /// Ends the calls; what follows tells how they went.
    void Stop();
    int Calls() const { return m_calls; }
    const QStringList& Complaints() const { return m_complaints; }

    /// \return the longest time from a call to its answer
    std::chrono::milliseconds Worst() const { return m_worst; }

private:
    void Run();

    std::atomic<bool> m_stopped{false};
    int m_calls = 0;
    QStringList m_complaints;
    std::chrono::milliseconds m_worst{0};
    std::thread m_thread;
};

} // namespace torture
