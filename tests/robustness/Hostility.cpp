#include "Hostility.h"

#include <memory>

namespace torture {
namespace {

constexpr int kCallers = 8;

bool WantsReply(const Message& message)
{
    return dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_METHOD_CALL &&
           dbus_message_get_no_reply(message.get()) == 0;
}

} // namespace

Hostility::Hostility(Chance& chance, QDeadlineTimer deadline) : m_deadline(deadline)
{
    for (int caller = 0; caller < kCallers; ++caller) {
        m_callers.emplace_back(&Hostility::Run, this, chance.Bits());
    }
}

Hostility::~Hostility()
{
    Stop();
}

void Hostility::Finish()
{
    for (std::thread& caller : m_callers) {
        caller.join();
    }
    m_callers.clear();
}

void Hostility::Stop()
{
    m_stopped = true;
    Finish();
}

void Hostility::Run(std::uint64_t seed)
{
    Chance chance(seed);
    HostileMessage hostile(chance);
    auto client = std::make_unique<BusClient>();
    while (!m_stopped && !m_deadline.hasExpired()) {
        const Message message = hostile.Make();
        if (message) {
            // One in four is not waited for, so that a queue builds up.
            SendOne(*client, message, !chance.OneIn(4) && WantsReply(message));
        }
        if (!client->IsConnected()) {
            ++m_dropped;
            client = std::make_unique<BusClient>();
        }
    }
}

void Hostility::SendOne(BusClient& client, const Message& message, bool wait)
{
    ++m_sent;
    if (!wait) {
        client.Send(message);
        return;
    }
    const Message reply = client.Call(message);
    if (IsUnanswered(reply)) {
        m_unanswered += client.IsConnected() ? 1 : 0; // else the bus has dropped the caller
    } else if (dbus_message_get_type(reply.get()) == DBUS_MESSAGE_TYPE_ERROR) {
        ++m_refused;
    } else {
        ++m_answered;
    }
}

void Hostility::Note(Findings& findings) const
{
    findings.Count(m_sent, "messages from 8 callers");
    findings.Count(m_answered, "answered");
    findings.Count(m_refused, "refused");
    findings.Count(m_dropped, "connections dropped by the bus");
    findings.Expect(m_unanswered == 0, QStringLiteral("%1 without an answer").arg(m_unanswered));
}

} // namespace torture
