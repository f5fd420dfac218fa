#include "misc/Utils.h"

#include "FailingCall.h"
#include "Files.h"
#include "Fixture.h"
#include "Processes.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace {

constexpr auto kRpmLock = "/var/lib/rpm/.rpm.lock";
constexpr auto kInstallerLock = "/var/lib/installer/database/.rpm.lock";

long ChangedAt(const char* path)
{
    struct stat info = {};
    lstat(path, &info);
    return info.st_ctim.tv_nsec;
}

} // namespace

class UtilsTest : public Fixture {
    Q_OBJECT

private slots:
    void init()
    {
        Fixture::init();
        RemoveAll("/tmp/t");
        MakeDirectory("/tmp/t");
        WriteFile("/tmp/t/file");
    }

    void NormalizesPaths_data()
    {
        const Table<QString, QString> row;
        row("empty", "", "");
        row("./", "./a/../b", "/home/App/b");
        row("~/", "~/x", "/home/App/x");
        row("other home", "~x", "/home/App/~x");
        row("absolute", "/etc//x/.", "/etc/x");
        row("relative", "a//b/.", "/home/App/a/b");
        row("leaving", "../Other/x", "/home/Other/x");
        row("hidden", ".hidden%1", "/home/App/.hidden%1");
    }

    void NormalizesPaths()
    {
        const auto [path, normalized] = FetchRow<QString, QString>();
        QCOMPARE(FileSystem::NormalizeFilePath(path, "/home/App"), normalized);
    }

    void CreateSymlinkReplacesWhatItCan()
    {
        MakeDirectory("/tmp/t/directory");
        MakeLink("/tmp/t/other", "/tmp/t/link");
        for (const char* path : {"/tmp/t/new", "/tmp/t/link", "/tmp/t/file"}) {
            QVERIFY(FileSystem::CreateSymlink("/tmp/t/target", path));
            QCOMPARE(QFile::symLinkTarget(path), QStringLiteral("/tmp/t/target"));
        }
        MakeLink("target", "/tmp/t/relative");
        for (const char* right : {"/tmp/t/link", "/tmp/t/relative"}) {
            const long before = ChangedAt(right);
            QVERIFY(FileSystem::CreateSymlink("/tmp/t/target", right));
            QCOMPARE(ChangedAt(right), before);
        }
        QVERIFY(FileSystem::CreateSymlink("/tmp/t/target2", "/tmp/t/link"));
        QCOMPARE(QFile::symLinkTarget("/tmp/t/link"), QStringLiteral("/tmp/t/target2"));
        QVERIFY(!FileSystem::CreateSymlink("/tmp/t/target", "/tmp/t/directory"));
        QVERIFY(!FileSystem::CreateSymlink("/tmp/t/target", "/tmp/t/none/link"));
    }

    void RemovesAnythingButWhatLinksPointTo()
    {
        WriteFile("/tmp/t/outside/file");
        WriteFile("/tmp/t/tree/.hidden/deep/file");
        WriteFile("/tmp/t/tree/file", {}, 4002, 4002, 0);
        QCOMPARE(mkfifo("/tmp/t/tree/fifo", 0600), 0);
        for (const QString dir : {"/tmp/t/", "/tmp/t/tree/"}) {
            MakeLink("/tmp/t/outside", dir + "link");
            MakeLink("/tmp/t/none", dir + "dangling");
        }
        for (const char* path :
             {"/tmp/t/tree", "/tmp/t/link", "/tmp/t/dangling", "/tmp/t/file", "/tmp/t/nothing"}) {
            QVERIFY(FileSystem::RemoveFile(path));
            QCOMPARE(OwnerAndMode(path), QString());
        }
        QVERIFY(QFileInfo::exists("/tmp/t/outside/file"));
        QVERIFY(FileSystem::RemoveFile("/proc/self/status")); // which cannot be removed
    }

    /// Each account can make a tree below /var/run/sockets that needs more than the daemon has.
    void DeepTreesAreSurvived()
    {
        const auto removeDeepTree = [](const char* folder) {
            constexpr rlimit kStack{512UL * 1024, 512UL * 1024};
            constexpr int kLevels = 15'000;
            rlimit files{};
            if (std::signal(SIGSEGV, SIG_DFL) == SIG_ERR || setrlimit(RLIMIT_STACK, &kStack) != 0 ||
                getrlimit(RLIMIT_NOFILE, &files) != 0) {
                return 2;
            }
            files.rlim_cur = files.rlim_max;
            setrlimit(RLIMIT_NOFILE, &files);
            for (int level = 0; level < kLevels; ++level) {
                if (mkdir(folder, 0755) != 0 || chdir(folder) != 0) {
                    return 1;
                }
            }
            FileSystem::RemoveFile("/tmp/t/deep");
            return 0;
        };
        MakeDirectory("/tmp/t/deep");
        QCOMPARE(chdir("/tmp/t/deep"), 0);
        QCOMPARE(InChild(removeDeepTree, "folder"), 0);
        QCOMPARE(chdir("/"), 0);
        QCOMPARE(Misc::ExecShell("rm -r /tmp/t/deep"), 0);
    }

    void DirectoryGetsOwnerAndMode_data()
    {
        const Table<unsigned, unsigned, unsigned, unsigned> row;
        row("missing", 022U, 0U, 0U, 0U);
        row("missing, hostile umask", 0777U, 0U, 0U, 0U);
        row("other owner", 0U, 4003U, 4002U, 0770U);
        row("other group", 0U, 4002U, 4003U, 0770U);
        row("other mode", 0U, 4002U, 4002U, 0700U);
        row("sticky", 0U, 4002U, 4002U, 01770U);
    }

    void DirectoryGetsOwnerAndMode()
    {
        const auto [mask, uid, gid, mode] = FetchRow<unsigned, unsigned, unsigned, unsigned>();
        if (mode != 0) {
            MakeDirectory("/tmp/t/a/b", uid, gid, mode);
        }
        const mode_t previous = umask(mask);
        const bool created = FileSystem::CreateDirIfNeeded("/tmp/t/a/b/", 4002, 4002, 0770);
        umask(previous);
        QVERIFY(created);
        QCOMPARE(OwnerAndMode("/tmp/t/a/b"), QStringLiteral("4002:4002 770"));
        const long before = ChangedAt("/tmp/t/a/b");
        QVERIFY(FileSystem::CreateDirIfNeeded("/tmp/t/a/b", 4002, 4002, 0770));
        QCOMPARE(ChangedAt("/tmp/t/a/b"), before);
        QVERIFY(FileSystem::DirExists("/tmp/t/a/b") && FileSystem::DirExists("/tmp/t/file"));
        QVERIFY(!FileSystem::DirExists("/tmp/t/none"));
    }

    void DirectoryFailures()
    {
        QVERIFY(!FileSystem::CreateDirIfNeeded("/tmp/t/file/new", 4002, 4002, 0770));
        WriteFile("/tmp/t/right", {}, 4002, 4002, 0770);
        for (const char* file : {"/tmp/t/file", "/tmp/t/right"}) {
            QVERIFY(!FileSystem::CreateDirIfNeeded(file, 4002, 4002, 0770));
        }
        QCOMPARE(TakeLogLines(), QStringList());
        for (const char* call : {"fchown", "fchmod"}) {
            const FailingCall failure(call, EPERM);
            QVERIFY(!FileSystem::CreateDirIfNeeded("/tmp/t/new", 4002, 4002, 0770));
        }
        QCOMPARE(TakeLogLines(), QStringList({"3 CreateDirIfNeeded Failed to create dir =  1",
                                              "3 CreateDirIfNeeded Failed to chmod =  1"}));
        QCOMPARE(OwnerAndMode("/tmp/t/file"), QStringLiteral("0:0 644"));
    }

    void LinkToDirectoryIsFollowedOnlyIfTrusted_data()
    {
        const Table<unsigned, unsigned, unsigned, bool> row;
        row("planted in a sticky folder", 4002U, 0U, 01777U, false);
        row("root's in a sticky folder", 0U, 0U, 01777U, false);
        row("root's in a folder of root", 0U, 0U, 0755U, true);
        row("root's in a folder that all may write", 0U, 0U, 0777U, false);
        row("root's in a folder of another", 0U, 4002U, 0755U, false);
    }

    void LinkToDirectoryIsFollowedOnlyIfTrusted()
    {
        const auto [linkOwner, folderOwner, folderMode, followed] =
            FetchRow<unsigned, unsigned, unsigned, bool>();
        MakeDirectory("/tmp/t/system");
        MakeDirectory("/tmp/t/folder", folderOwner, folderOwner, folderMode);
        MakeLink("/tmp/t/system", "/tmp/t/folder/pay", linkOwner);
        QCOMPARE(FileSystem::CreateDirIfNeeded("/tmp/t/folder/pay", 4002, 4002, 0770), followed);
        QCOMPARE(FileSystem::CreateSymlink("/tmp/t", "/tmp/t/folder/pay/link"), followed);
        QCOMPARE(QFileInfo("/tmp/t/system/link").isSymLink(), followed);
        QCOMPARE(OwnerAndMode("/tmp/t/system"), followed ? "4002:4002 770" : "0:0 755");
        MakeDirectory("/tmp/t/system", 4002, 4002, 0770); // as it should be, but not for that link
        QCOMPARE(FileSystem::CreateDirIfNeeded("/tmp/t/folder/pay", 4002, 4002, 0770), followed);
        QCOMPARE(TakeLogLines().size(), followed ? 0 : 2);
    }

    void ExecShellReturnsExitStatus()
    {
        QCOMPARE(Misc::ExecShell("true"), 0);
        QCOMPARE(Misc::ExecShell("kill -KILL $$"), 0); // no exit status
        for (int child = 0; child < 5; ++child) {
            if (fork() == 0) {
                _exit(0);
            }
        }
        for (const pid_t child : Children()) {
            QTRY_COMPARE(StatusOf(child).value("State"), QByteArray("Z (zombie)"));
        }
        QCOMPARE(Misc::ExecShell("exit 3"), 3);
        QCOMPARE(Children(), QList<pid_t>());
        const FailingCall failure("system", EAGAIN);
        QCOMPARE(Misc::ExecShell("true"), 255);
        QCOMPARE(static_cast<int>(Misc::g_ignore_sigChld), 0);
    }

    void LocksAndUnlocks()
    {
        const mode_t previous = umask(0);
        const bool locked = Misc::LockFile("/tmp/t/lock");
        QCOMPARE(umask(previous), 0U);
        QVERIFY(locked && IsLocked("/tmp/t/lock"));
        QCOMPARE(OwnerAndMode("/tmp/t/lock"), QStringLiteral("0:0 644"));
        QVERIFY(Misc::UnLockFile("/tmp/t/lock"));
        QVERIFY(!IsLocked("/tmp/t/lock"));
        QCOMPARE(TakeLogLines(), QStringList());
    }

    void LockFailures()
    {
        {
            const ForeignLock other("/tmp/t/lock");
            QVERIFY(!Misc::LockFile("/tmp/t/lock"));
        }
        QVERIFY(!Misc::LockFile("/tmp/t/none/lock"));
        QVERIFY(!Misc::UnLockFile("/tmp/t/none"));
        const FailingCall failure("fcntl", ENOLCK);
        QVERIFY(!Misc::UnLockFile("/tmp/t/lock"));
        QCOMPARE(TakeLogLines(), QStringList({"3 LockFile Failed to lock file  /tmp/t/lock 11",
                                              "3 LockFile Failed to open file  /tmp/t/none/lock 2",
                                              "3 UnLockFile Failed to open file  /tmp/t/none 2",
                                              "3 UnLockFile Failed to unlock file  /tmp/t/lock 37"}));
    }

    void BothDatabasesAreLockedOrNone()
    {
        for (const char* foreign : {kRpmLock, kInstallerLock, "/tmp/t/other"}) {
            const bool isFree = foreign[1] == 't';
            {
                const ForeignLock other(foreign);
                QCOMPARE(Misc::LockRPMFile(), isFree);
            }
            QCOMPARE(IsLocked(kRpmLock), isFree);
            QCOMPARE(IsLocked(kInstallerLock), isFree);
        }
    }
};

KX_TEST_MAIN(UtilsTest)
#include "tst_utils.moc"
