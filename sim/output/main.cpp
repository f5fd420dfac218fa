// Runs a command in its own place. Whatever this and its descendants print goes to the log line by line,
// under the name of the application whose account wrote it: named-output COMMAND [ARGUMENT...]
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr std::size_t kBlock = 4096;

// The application whose home belongs to the account; otherwise the output is the daemon's own.
std::string NameOf(uid_t account)
{
    struct stat status {};
    for (const auto& home : std::filesystem::directory_iterator("/home")) {
        if (account != 0 && stat(home.path().c_str(), &status) == 0 && status.st_uid == account) {
            return home.path().filename();
        }
    }
    return "kxcore";
}

void Log(const ucred& writer, const std::string& line)
{
    const std::string name = NameOf(writer.uid);
    openlog(name.c_str(), 0, LOG_USER);
    syslog(LOG_INFO, "%s", line.c_str());
    closelog();
}

// Reads one write of one process; the kernel says whose it was.
ssize_t Receive(int fd, std::array<char, kBlock>& block, ucred& writer)
{
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred))> control{};
    iovec part{block.data(), block.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t size = recvmsg(fd, &message, 0);
    if (const cmsghdr* header = CMSG_FIRSTHDR(&message); size > 0 && header != nullptr) {
        std::memcpy(&writer, CMSG_DATA(header), sizeof(writer));
    }
    return size;
}

void Collect(int fd)
{
    std::map<pid_t, std::string> begun;
    std::array<char, kBlock> block{};
    ucred writer{};
    for (ssize_t size = 0; (size = Receive(fd, block, writer)) > 0;) {
        std::string& text = begun[writer.pid].append(block.data(), static_cast<std::size_t>(size));
        for (std::size_t end = 0; (end = text.find('\n')) != std::string::npos; text.erase(0, end + 1)) {
            Log(writer, text.substr(0, end));
        }
        if (text.empty() || text.size() >= kBlock) {
            if (!text.empty()) {
                Log(writer, text);
            }
            begun.erase(writer.pid);
        }
    }
}

// The collector is no child of the command, which may wait until it has none.
void StartCollector(int ours, int theirs)
{
    const pid_t child = fork();
    if (child == 0) {
        if (fork() == 0) {
            close(theirs);
            Collect(ours);
        }
        _exit(EXIT_SUCCESS);
    }
    waitpid(child, nullptr, 0);
}

} // namespace

int main(int argc, char* argv[])
{
    std::array<int, 2> pair{};
    const int on = 1;
    if (argc < 2 || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()) != 0 ||
        setsockopt(pair[0], SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) != 0) {
        std::perror("named-output");
        return EXIT_FAILURE;
    }
    StartCollector(pair[0], pair[1]);
    dup2(pair[1], STDOUT_FILENO);
    dup2(pair[1], STDERR_FILENO);
    execvp(argv[1], argv + 1);
    std::perror(argv[1]);
    return EXIT_FAILURE;
}
