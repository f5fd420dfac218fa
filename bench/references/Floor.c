/* A library with the least that some calls can cost, in plain C and without a bus. */
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <libxml/parser.h>
#include <pwd.h>
#include <signal.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

static const char* const kSubdirectories[] = {"cgi-bin", "html", "files"};

/* Looks up so many users and groups, which takes longer the more accounts there are. */
bool LookUpAccounts(unsigned firstUser, unsigned firstGroup, unsigned count)
{
    bool known = true;
    for (unsigned i = 0; i < count; ++i) {
        known = getpwuid(firstUser + i) != NULL && getgrgid(firstGroup + i) != NULL && known;
    }
    return known;
}

/* Opened by name only to be examined: whatever an application put there must not be opened for reading. */
static bool ReadConfiguration(const char* path)
{
    char link[64];
    struct stat info;
    const int handle = open(path, O_PATH | O_CLOEXEC);
    if (handle < 0 || fstat(handle, &info) != 0 || !S_ISREG(info.st_mode)) {
        return false;
    }
    snprintf(link, sizeof(link), "/proc/self/fd/%d", handle);
    const int fd = open(link, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    char* text = malloc((size_t)info.st_size);
    const ssize_t size = read(fd, text, (size_t)info.st_size);
    close(fd);
    close(handle);
    xmlDoc* document = xmlReadMemory(text, (int)size, NULL, NULL, XML_PARSE_NONET);
    xmlFreeDoc(document);
    free(text);
    return document != NULL;
}

/* A link is not followed where others may write to the parent. */
static bool CreateDirectory(const char* parent, const char* path)
{
    struct stat info;
    if ((stat(path, &info) != 0 && mkdir(path, 0777) != 0) || stat(parent, &info) != 0) {
        return false;
    }
    const int follow = (info.st_mode & (S_IWGRP | S_IWOTH)) != 0 ? O_NOFOLLOW : 0;
    const int fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC | follow);
    const bool done = fd >= 0 && fchown(fd, 0, 0) == 0 && fchmod(fd, 0777) == 0;
    close(fd);
    return done;
}

/* The links exist, as they do from the second time on. */
static bool Publish(const char* name)
{
    char path[512];
    char target[512];
    bool done = CreateDirectory("/var/run", "/var/run/www");
    for (size_t i = 0; i < sizeof(kSubdirectories) / sizeof(kSubdirectories[0]); ++i) {
        snprintf(path, sizeof(path), "/var/run/www/%s", kSubdirectories[i]);
        done = CreateDirectory("/var/run/www", path) && done;
        snprintf(path, sizeof(path), "/var/run/www/%s/%s", kSubdirectories[i], name);
        done = readlink(path, target, sizeof(target)) > 0 && done;
    }
    return CreateDirectory("/var/run", "/var/run/sockets") && done;
}

static bool Gather(const char* name)
{
    char path[512];
    struct stat info;
    snprintf(path, sizeof(path), "/home/%s", name);
    if (stat(path, &info) != 0 || !LookUpAccounts(info.st_uid, info.st_gid, 1)) {
        return false;
    }
    snprintf(path, sizeof(path), "/home/%s/app.conf", name);
    const bool done = ReadConfiguration(path);
    snprintf(path, sizeof(path), "/home/%s/cgi-bin", name);
    stat(path, &info);
    return done;
}

static int IsApplication(const struct dirent* entry)
{
    return entry->d_type == DT_DIR && entry->d_name[0] != '.';
}

/* Enumerates the applications: every system call and account look-up that this takes, and libxml2 for the
 * configuration. Returns how many there are, without those that failed. */
int EnumerateApplications(void)
{
    struct dirent** entries = NULL;
    int done = 0;
    const int count = scandir("/home/", &entries, IsApplication, alphasort);
    for (int i = 0; i < count; ++i) {
        done += Gather(entries[i]->d_name) && Publish(entries[i]->d_name) ? 1 : 0;
        free(entries[i]);
    }
    free(entries);
    return done;
}

/* Ends and collects children that do not resist. */
void EndChildren(const int* children, int count)
{
    for (int i = 0; i < count; ++i) {
        kill(children[i], SIGTERM);
    }
    for (int i = 0; i < count; ++i) {
        waitpid(children[i], NULL, 0);
    }
}
