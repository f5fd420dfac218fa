#include "BusClient.h"
#include "DaemonFixture.h"
#include "Files.h"

#include <QDir>
#include <QFile>

#include <sys/resource.h>
#include <unistd.h>

#include <memory>

using kxtest::DaemonFixture;
using torture::BusClient;
using torture::Describe;
using torture::Message;
using torture::SystemCall;
using torture::ToolsCall;

namespace {

const QString kVariables = QStringLiteral("/etc/rc.d/rc.platform.conf");
const QString kHubId = QStringLiteral("/etc/platform/sys/hubID");
const QString kRegistry = QStringLiteral("/var/lib/kxregistry/registry.ini");
constexpr int kPageSize = 4096;

#if defined(__SANITIZE_ADDRESS__) || (defined(__has_feature) && __has_feature(address_sanitizer))
constexpr bool kHasSanitizer = true;
#else
constexpr bool kHasSanitizer = false;
#endif

/// A call, what it has to answer and what the log has to say; null: nothing in particular.
struct Case {
    const char* name;
    Message (*call)();
    const char* answer;
    const char* record;
};

Message UsbCall()
{
    return SystemCall(
        96,
        {{"mode", "serial"}, {"usbForceFullspeed", "0"}, {"dflt", "0"}, {"usbuid", "0"}, {"hubid", "hub"}});
}

Message ConsoleCall()
{
    return SystemCall(100, {{"command", "enable"}});
}

Message KernelsCall()
{
    return SystemCall(102, {{"number", "2"}});
}

Message WebServerCall()
{
    return SystemCall(97, {{"newconf", "HTTP"}});
}

Message VariableCall()
{
    return ToolsCall("SaveVariableValue", {"NEW", "value"});
}

Message TimeCall()
{
    return ToolsCall("SetSystemTime", {"2030-01-01"});
}

Message SourceCall()
{
    return ToolsCall("ResetTimeInfoSource", {});
}

Message StartIdle()
{
    return torture::StartCall({{"application", "pay"}, {"binary", "idle"}, {"params", "1000"}});
}

Message Terminate()
{
    return torture::MethodCall("/Applications", "com.veltrasys.kx.core.Applications", "Terminate");
}

Message Enumerate()
{
    return torture::MethodCall("/Applications", "com.veltrasys.kx.core.Applications", "Enumerate");
}

constexpr auto kStarted = R"({ "errorCode": <0> })";
constexpr auto kFailed = R"({ "return": <-1> })";
constexpr auto kFailedWithOne = R"({ "return": <1> })";
constexpr auto kNotFound = R"({ "return": <127> })";

/// While it lives, one file holds all the room that the private root has left.
class FullDisk {
public:
    FullDisk()
    {
        if (m_file.open(QIODevice::WriteOnly | QIODevice::Unbuffered)) {
            const QByteArray page(kPageSize, 'x');
            while (m_file.write(page) == page.size()) {
            }
        }
    }
    ~FullDisk() { m_file.remove(); }
    FullDisk(const FullDisk&) = delete;
    FullDisk& operator=(const FullDisk&) = delete;

    qint64 Size() const { return m_file.size(); }

private:
    QFile m_file{QStringLiteral("/filler")};
};

/// While it lives, another process has a lower limit.
class LowLimit {
public:
    LowLimit(pid_t process, int resource, rlim_t limit) : m_process(process), m_resource(resource)
    {
        prlimit(m_process, Resource(), nullptr, &m_previous);
        const struct rlimit low = {limit, m_previous.rlim_max};
        prlimit(m_process, Resource(), &low, nullptr);
    }
    ~LowLimit() { prlimit(m_process, Resource(), &m_previous, nullptr); }
    LowLimit(const LowLimit&) = delete;
    LowLimit& operator=(const LowLimit&) = delete;

private:
    __rlimit_resource Resource() const { return static_cast<__rlimit_resource>(m_resource); }

    pid_t m_process;
    int m_resource;
    struct rlimit m_previous = {};
};

} // namespace

/// What the daemon does when its surroundings fail: it says so, answers, and is well again when they are.
class FaultsTest : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void FullDiskIsReported();
    void ReadOnlyFilesAreReported();
    void MissingToolsAreReported();
    void DescriptorsRunOut();
    void ProcessesRunOut();
    void MemoryOfLargeMessagesIsGivenBack();

private:
    void Start();
    std::string Answer(const Message& call) { return Describe(m_client->Call(call)); }
    /// Makes each call and compares.
    template<typename Cases>
    void ExpectAnswers(const Cases& cases);
    long ResidentKilobytes() const;

    std::unique_ptr<DaemonFixture> m_daemon;
    std::unique_ptr<BusClient> m_client;
    std::string m_applications; ///< what Enumerate answers as long as nothing is wrong
};

void FaultsTest::init()
{
    kxtest::RemoveApplications();
    kxtest::InstallApplication("pay", 4002, 4002,
                               "<application><home_button>html/a.html</home_button></application>",
                               {kxtest::IdleProgram()});
    m_client.reset();
    m_daemon = std::make_unique<DaemonFixture>();
}

void FaultsTest::Start()
{
    QVERIFY(m_daemon->Start());
    m_client = std::make_unique<BusClient>();
    m_applications = Answer(Enumerate());
    QVERIFY(m_applications.find("\"/home/pay\"") != std::string::npos);
}

/// Whatever went wrong, the same daemon is well again.
void FaultsTest::cleanup()
{
    if (!m_client) {
        return; // skipped, or failed to start
    }
    QCOMPARE(Answer(Enumerate()), m_applications);
    QCOMPARE(Answer(StartIdle()), std::string(kStarted));
    QCOMPARE(Answer(Terminate()), std::string());
    QVERIFY(kxtest::ProcessesOf("/home/pay/bin/idle").isEmpty());
    QCOMPARE(m_daemon->Stop(), 0);
}

template<typename Cases>
void FaultsTest::ExpectAnswers(const Cases& cases)
{
    for (const Case& entry : cases) {
        const std::string answer = Answer(entry.call());
        QVERIFY2(answer == entry.answer, (entry.name + (": " + answer)).c_str());
        if (entry.record != nullptr) {
            QVERIFY2(m_daemon->WaitForRecord(entry.record).text.contains(entry.record), entry.name);
        }
    }
}

long FaultsTest::ResidentKilobytes() const
{
    const QByteArray statm = ReadFile(QStringLiteral("/proc/%1/statm").arg(m_daemon->Pid()));
    return statm.split(' ').value(1).toLong() * (sysconf(_SC_PAGESIZE) / 1024);
}

/// Its private root is small, see CMakeLists.txt. The log is on the same disk and says nothing.
void FaultsTest::FullDiskIsReported()
{
    m_daemon->Preload(KX_FAKECLOCK_LIBRARY); // the clock cannot be set here
    Start();
    static constexpr Case kCases[]{
        {"variable", VariableCall, "-1", nullptr},
        {"time offset", TimeCall, "-3", nullptr},
        {"hub identifier", UsbCall, kFailedWithOne, nullptr},
        {"kernels", KernelsCall, kFailed, nullptr},
        {"registry", SourceCall, "0", nullptr},
        {"start", StartIdle, kStarted, nullptr},
    };
    const QByteArray variables(kPageSize, '#'); // one more line needs another page
    WriteFile(kVariables, variables);
    QCOMPARE(Answer(ToolsCall("SetTimeZone", {"Europe/Berlin"})), std::string("0"));
    const QByteArray registry = ReadFile(kRegistry);
    QVERIFY(!registry.isEmpty());
    {
        const FullDisk disk;
        QVERIFY2(disk.Size() > 0 && disk.Size() < 200'000'000, "this needs a small private root");
        ExpectAnswers(kCases);
        QCOMPARE(Answer(Enumerate()), m_applications);
        QCOMPARE(ReadFile(kVariables), variables);
        QCOMPARE(ReadFile(kRegistry), registry);
    }
    QCOMPARE(Answer(VariableCall()), std::string("0"));
    QCOMPARE(Answer(UsbCall()), std::string(R"({ "return": <0> })"));
    QCOMPARE(ReadFile(kHubId), QByteArray("hub"));
    QCOMPARE(Answer(SourceCall()), std::string("0"));
    QVERIFY(ReadFile(kRegistry).contains("UNKNOWN"));
}

/// The installed tree is read-only also for root.
void FaultsTest::ReadOnlyFilesAreReported()
{
    static constexpr std::pair<const char*, const char*> kLinks[]{
        {"/etc/platform/sys", "/usr/share"},
        {"/etc/platform/settings", "/usr/share"},
        {"/etc/lighttpd", "/usr/share"},
        {"/etc/rc.d/rc.platform.conf", "/usr/share/zoneinfo/zone.tab"},
        {"/etc/time_offset", "/usr/share/zoneinfo/zone.tab"},
        {"/etc/platform/99-audiopayd", "/usr/bin/true"},
    };
    static constexpr Case kCases[]{
        {"hub identifier", UsbCall, kFailedWithOne,
         "could not open file '/etc/platform/sys/hubID', Read-only file system"},
        {"kernels", KernelsCall, kFailed, "Write to /etc/platform/settings/L2KernelsVersion error"},
        {"web server", WebServerCall,
         R"({ "response": <"Symlink failed: Read-only file system"> ,  "return": <-1> })",
         "Symlink failed: Read-only file system"},
        {"variable", VariableCall, "-1", nullptr},
        {"time offset", TimeCall, "-3", nullptr},
    };
    for (const auto& [path, target] : kLinks) {
        rename(path, (QByteArray(path) + ".aside").constData());
        QCOMPARE(symlink(target, path), 0);
    }
    m_daemon->Preload(KX_FAKECLOCK_LIBRARY); // the clock cannot be set here
    Start();
    ExpectAnswers(kCases);
    const Message enable = torture::MethodCall("/Tools", "com.veltrasys.kx.core.Tools", "EnableAudiopayd");
    const dbus_bool_t on = TRUE;
    dbus_message_append_args(enable.get(), DBUS_TYPE_BOOLEAN, &on, DBUS_TYPE_INVALID);
    QCOMPARE(Answer(enable), std::string());
    QCOMPARE(m_daemon->WaitForRecord("Read-only file system").priority, QStringLiteral("err"));
    for (const auto& [path, target] : kLinks) {
        unlink(path);
        rename((QByteArray(path) + ".aside").constData(), path);
    }
}

void FaultsTest::MissingToolsAreReported()
{
    static constexpr const char* kScripts[]{"/etc/rc.d/init.d/console", "/etc/rc.d/init.d/lighthttpd",
                                            "/etc/platform/34-sredd", "/sred/root/hwtest/hwtest"};
    static constexpr Case kCases[]{
        {"reboot", [] { return SystemCall(1); }, kNotFound, nullptr},
        {"modprobe, rmmod, lsmod", UsbCall, kFailedWithOne, "Couldn't reload usb gadget's modules"},
        {"web server", [] { return SystemCall(97); }, R"({ "response": <"OK"> ,  "return": <0> })",
         "/etc/rc.d/init.d/lighthttpd restart returned  127"},
        {"hardware test", [] { return SystemCall(98); }, R"({ "return": <0> })", nullptr},
        {"console", ConsoleCall, kNotFound, "Error changing console status"},
        {"poweroff", [] { return SystemCall(101); }, kNotFound, nullptr},
        {"secure daemon", KernelsCall, kFailed, "sredd restarting returns error"},
        {"pidof", [] { return SystemCall(103); }, R"({ "return": <0> })", nullptr},
        {"keypad", [] { return SystemCall(105); }, R"({ "return": <2> })", nullptr},
    };
    for (const char* script : kScripts) {
        QCOMPARE(unlink(script), 0);
    }
    m_daemon->SetEnvironment("PATH", "/nowhere");
    Start();
    ExpectAnswers(kCases);
}

void FaultsTest::DescriptorsRunOut()
{
    if (kHasSanitizer) {
        QSKIP("a sanitizer needs descriptors for its checks");
    }
    static constexpr Case kCases[]{
        {"start", StartIdle,
         R"({ "errorCode": <-1> ,  "errorText": <"Failed to start /home/pay/bin/idle 1000 binary"> })",
         R"(Unable to examine "/home/pay/bin/idle" errno: 24)"},
        {"variable", VariableCall, "-1", nullptr},
        {"list", Enumerate, "{}", nullptr}, // what can be read: nothing
    };
    Start();
    QCOMPARE(Answer(StartIdle()), std::string(kStarted)); // the application's directories are prepared
    QCOMPARE(Answer(SystemCall(77)),
             std::string(kFailed)); // the log is open, as it is from the first record on
    const QString folder = QStringLiteral("/proc/%1/fd").arg(m_daemon->Pid());
    const int open = QDir(folder).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot).size();
    const LowLimit limit(m_daemon->Pid(), RLIMIT_NOFILE, static_cast<rlim_t>(open));
    ExpectAnswers(kCases);
}

/// The limit is one on the processes of the application's account, since root has none.
void FaultsTest::ProcessesRunOut()
{
    constexpr int kMost = 5;
    Start();
    const LowLimit limit(m_daemon->Pid(), RLIMIT_NPROC, kMost);
    std::string answer = kStarted;
    int started = 0;
    for (; answer == kStarted && started <= 3 * kMost; ++started) {
        answer = Answer(StartIdle());
    }
    QCOMPARE(answer, std::string(R"({ "errorCode": <-1> ,  )"
                                 R"("errorText": <"Failed to start /home/pay/bin/idle 1000 binary"> })"));
    const QString record =
        QStringLiteral("Start: Failed to execute child (Resource temporarily unavailable)");
    QCOMPARE(m_daemon->WaitForRecord(record).text, '"' + record + '"');
    QCOMPARE(kxtest::ProcessesOf("/home/pay/bin/idle").size(), started - 1);
    QCOMPARE(Answer(Terminate()), std::string());
}

void FaultsTest::MemoryOfLargeMessagesIsGivenBack()
{
    if (kHasSanitizer) {
        QSKIP("a sanitizer keeps what was freed for a while");
    }
    constexpr size_t kLarge = 8'000'000;
    constexpr int kMessages = 5;
    constexpr long kAllowedKilobytes = 8 * 1024;
    Start();
    const long before = ResidentKilobytes();
    for (int message = 0; message < kMessages; ++message) {
        const Message call =
            torture::StartCall({{"application", std::string(kLarge * (1 + message % 3), 'x')}});
        QVERIFY(Answer(call).find("Application xxx") != std::string::npos);
    }
    QCOMPARE(Answer(Enumerate()), m_applications); // until then the bus library holds the last message
    const long growth = ResidentKilobytes() - before;
    QVERIFY2(growth < kAllowedKilobytes, qPrintable(QString::number(growth)));
}

QTEST_GUILESS_MAIN(FaultsTest)
#include "FaultsTest.moc"
