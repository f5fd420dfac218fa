#include "NormalCaller.h"

#include "BusClient.h"

#include <array>
#include <stdexcept>

namespace torture {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kMostComplaints = 3; // one that repeats itself says no more

struct NormalCall {
    Message (*make)();
    const char* answer; ///< null: what the daemon answered before anybody attacked it
};

const std::array<NormalCall, 6> kCalls{{
    {[] { return MethodCall("/Applications", "com.veltrasys.kx.core.Applications", "Enumerate"); }, nullptr},
    {[] {
         return StartCall({{"application", "nobody"}});
     },
     R"({ "errorCode": <-1> ,  "errorText": <"Application nobody doesn't exist"> })"},
    {[] { return SystemCall(77); }, R"({ "return": <-1> })"},
    {[] { return ToolsCall("SetSystemTime", {"yesterday"}); }, "-1"},
    {[] { return MethodCall("/Tools", DBUS_INTERFACE_PEER, "Ping"); }, ""},
    {[] { return MethodCall("/Tools", DBUS_INTERFACE_INTROSPECTABLE, "Introspect"); }, nullptr},
}};

/// The answers of a daemon that nobody has attacked yet.
using Answers = std::array<std::string, std::tuple_size_v<decltype(kCalls)>>;

const Answers& RightAnswers()
{
    static const Answers kAnswers = [] {
        BusClient client;
        Answers answers;
        for (size_t index = 0; index < kCalls.size(); ++index) {
            const char* const known = kCalls[index].answer;
            answers[index] = known != nullptr ? known : Describe(client.Call(kCalls[index].make()));
        }
        if (answers[0].find("\"/home/pay\"") == std::string::npos) {
            throw std::runtime_error("no list of applications to compare with: " + answers[0]);
        }
        return answers;
    }();
    return kAnswers;
}

/// \return what is wrong with the answer; empty when nothing is
QString Complaint(BusClient& client, size_t index)
{
    const Message call = kCalls[index].make();
    const std::string answer = Describe(client.Call(call));
    if (answer == RightAnswers()[index]) {
        return {};
    }
    constexpr int kShown = 300;
    return QStringLiteral("%1 answered %2")
        .arg(QLatin1String(dbus_message_get_member(call.get())), QString::fromStdString(answer).left(kShown));
}

} // namespace

QStringList ComplaintsOfNormalCalls()
{
    BusClient client;
    QStringList complaints;
    for (size_t index = 0; index < kCalls.size(); ++index) {
        complaints += Complaint(client, index);
    }
    complaints.removeAll(QString());
    return complaints;
}

NormalCaller::NormalCaller()
{
    RightAnswers();
    m_thread = std::thread([this] { Run(); });
}

NormalCaller::~NormalCaller()
{
    Stop();
}

void NormalCaller::Stop()
{
    m_stopped = true;
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

void NormalCaller::Run()
{
    BusClient client;
    for (size_t index = 0; !m_stopped && m_complaints.size() < kMostComplaints;
         index = (index + 1) % kCalls.size()) {
        const auto begin = Clock::now();
        const QString complaint = Complaint(client, index);
        const auto taken = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
        m_worst = std::max(m_worst, taken);
        ++m_calls;
        if (!complaint.isEmpty()) {
            m_complaints += complaint;
        }
    }
}

} // namespace torture
