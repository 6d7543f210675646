// Private sandbox: new mount, pid and network namespaces (and a user namespace
// when not root) in which the directories the library uses are private copies
// and the only network is loopback.
#include "sandbox.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <ftw.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace vbw {
namespace {

const char kStaging[] = "/run/.vbw-sandbox";

std::string Errno(const std::string &what)
{
    return what + ": " + std::strerror(errno);
}

// Puts a file of the staging tmpfs with `content` over `target`.
bool BindFile(const std::string &target, const std::string &name, const std::string &content, std::string *error)
{
    std::string source = std::string(kStaging) + "/" + name;
    int fd = open(source.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        *error = Errno("open " + source);
        return false;
    }
    bool ok = write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
    close(fd);
    if (!ok) {
        *error = Errno("write " + source);
        return false;
    }
    if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        *error = Errno("bind " + target);
        return false;
    }
    return true;
}

bool Exists(const std::string &path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

int RemoveEntry(const char *path, const struct stat *, int type, struct FTW *)
{
    return type == FTW_DP ? rmdir(path) : unlink(path);
}

// Removes a tree inside an overlay: the lower directory is untouched, the
// overlay only records that the entries are gone.
bool RemoveTree(const std::string &path, std::string *error)
{
    if (!Exists(path)) {
        return true;
    }
    if (nftw(path.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS) != 0) {
        *error = Errno("remove " + path);
        return false;
    }
    return true;
}

bool MountTmpfs(const std::string &target, std::string *error)
{
    if (mount("vbw-sandbox", target.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") != 0) {
        *error = Errno("mount tmpfs on " + target);
        return false;
    }
    return true;
}

// Puts a writable overlay over `dir`; its changes live in the staging tmpfs.
// `ownDir`, when given, is a directory of ours in the overlay from the start:
// inside a user namespace the real directories are not writable.
bool MountOverlay(const std::string &dir, const std::string &name, bool userns, std::string *error,
                  const char *ownDir = nullptr)
{
    std::string base = std::string(kStaging) + "/" + name;
    std::string upper = base + "/upper";
    std::string work = base + "/work";
    // The overlay's root takes the upper directory's mode: that of `dir`
    // (/tmp stays 1777, so that every user can create files in it).
    struct stat lower;
    if (stat(dir.c_str(), &lower) != 0 || mkdir(base.c_str(), 0700) != 0 || mkdir(upper.c_str(), 0755) != 0 ||
        chmod(upper.c_str(), lower.st_mode & 07777) != 0 || mkdir(work.c_str(), 0700) != 0) {
        *error = Errno("mkdir " + base);
        return false;
    }
    if (ownDir != nullptr && mkdir((upper + "/" + ownDir).c_str(), 0755) != 0) {
        *error = Errno("mkdir " + upper + "/" + ownDir);
        return false;
    }
    std::string options = "lowerdir=" + dir + ",upperdir=" + upper + ",workdir=" + work;
    if (userns) {
        options += ",userxattr";
    }
    if (mount("overlay", dir.c_str(), "overlay", 0, options.c_str()) != 0) {
        *error = Errno("mount overlay on " + dir) + " (the sandbox needs overlayfs: modprobe overlay)";
        return false;
    }
    return true;
}

// The entries of /dev that processes in the sandbox need, held open while a
// new /dev is mounted and then bound back in place.
struct HeldEntry {
    std::string path;
    int fd;
    bool directory;
};

std::vector<HeldEntry> HoldDevEntries(bool withNodes)
{
    const char *directories[] = {"/dev/pts", "/dev/shm", "/dev/mqueue"};
    const char *nodes[] = {"/dev/null", "/dev/zero", "/dev/full", "/dev/random", "/dev/urandom", "/dev/tty"};
    std::vector<HeldEntry> held;
    for (const char *path : directories) {
        int fd = open(path, O_PATH | O_DIRECTORY | O_CLOEXEC);
        if (fd >= 0) {
            held.push_back({path, fd, true});
        }
    }
    for (const char *path : nodes) {
        int fd = withNodes ? open(path, O_PATH | O_CLOEXEC) : -1;
        if (fd >= 0) {
            held.push_back({path, fd, false});
        }
    }
    return held;
}

bool BindHeld(const std::vector<HeldEntry> &held, std::string *error)
{
    bool ok = true;
    for (const HeldEntry &entry : held) {
        std::string source = "/proc/self/fd/" + std::to_string(entry.fd);
        if (!Exists(entry.path)) {
            int made = entry.directory ? mkdir(entry.path.c_str(), 0755)
                                       : close(open(entry.path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0666));
            (void)made;
        }
        if (ok && mount(source.c_str(), entry.path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
            *error = Errno("bind " + entry.path);
            ok = false;
        }
        close(entry.fd);
    }
    return ok;
}

// A private /dev: an overlay of the real one where the kernel allows it (root),
// else (inside a user namespace) a tmpfs with the usual device nodes bound in.
bool PrivateDev(bool userns, std::string *error)
{
    std::vector<HeldEntry> held = HoldDevEntries(userns);
    bool ok = userns ? MountTmpfs("/dev", error) : MountOverlay("/dev", "dev", userns, error);
    ok = BindHeld(held, error) && ok;
    if (ok && userns) {
        (void)!symlink("/proc/self/fd", "/dev/fd");
        (void)!symlink("/proc/self/fd/0", "/dev/stdin");
        (void)!symlink("/proc/self/fd/1", "/dev/stdout");
        (void)!symlink("/proc/self/fd/2", "/dev/stderr");
    }
    return ok && RemoveTree("/dev/log", error);
}

bool WriteIdMap(const char *file, unsigned id)
{
    std::string map = "0 " + std::to_string(id) + " 1\n";
    int fd = open(file, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    bool ok = write(fd, map.data(), map.size()) == static_cast<ssize_t>(map.size());
    close(fd);
    return ok;
}

bool Unshare(bool userns, std::string *error)
{
    uid_t uid = geteuid();
    gid_t gid = getegid();
    int flags = CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWNET | (userns ? CLONE_NEWUSER : 0);
    if (unshare(flags) != 0) {
        *error =
            Errno("unshare") + (userns ? " (the sandbox needs root, or unprivileged user namespaces: "
                                         "sysctl kernel.unprivileged_userns_clone=1 and user.max_user_namespaces > 0)"
                                       : " (the sandbox needs mount, pid and network namespaces)");
        return false;
    }
    if (userns) {
        int fd = open("/proc/self/setgroups", O_WRONLY | O_CLOEXEC);
        if (fd >= 0) {
            (void)!write(fd, "deny", 4);
            close(fd);
        }
        if (!WriteIdMap("/proc/self/uid_map", uid) || !WriteIdMap("/proc/self/gid_map", gid)) {
            *error = Errno("writing the user namespace's id maps");
            return false;
        }
    }
    return true;
}

// The new network namespace has only a loopback interface, down: up, it
// answers on 127.0.0.1 and ::1 and reaches nothing else.
bool LoopbackUp(std::string *error)
{
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct ifreq request = {};
    std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    bool ok = fd >= 0 && ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    request.ifr_flags |= IFF_UP | IFF_RUNNING;
    ok = ok && ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    if (!ok) {
        *error = Errno("bring up the loopback interface");
    }
    if (fd >= 0) {
        close(fd);
    }
    return ok;
}

bool SetUpMounts(const SandboxOptions &options, bool userns, std::string *error)
{
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        *error = Errno("make mounts private");
        return false;
    }
    if (!MountTmpfs("/run", error) || mkdir(kStaging, 0700) != 0) {
        if (error->empty()) {
            *error = Errno("mkdir staging");
        }
        return false;
    }
    return PrivateDev(userns, error) && MountOverlay("/usr", "usr", userns, error, userns ? "vesk" : nullptr) &&
           (userns || RemoveTree("/usr/vesk", error)) && MountOverlay("/tmp", "tmp", userns, error) &&
           RemoveTree("/tmp/bandwidth", error) && BindFile("/etc/passwd", "passwd", options.passwd, error) &&
           BindFile("/etc/group", "group", options.group, error);
}

// pid 1 of the new pid namespace: mounts its /proc, starts the process that
// continues inside, reaps every orphan, and leaves with that process's status
// (the kernel then ends whatever is left in the namespace).
pid_t RunInit(std::string *error)
{
    prctl(PR_SET_NAME, "vbw-init");
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
        *error = Errno("mount /proc");
        return -1;
    }
    pid_t inner = fork();
    if (inner != 0) {
        int status = 0;
        for (;;) {
            pid_t reaped = wait(&status);
            if (reaped == inner || (reaped < 0 && errno != EINTR)) {
                break;
            }
        }
        _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
    }
    return 0;
}

}  // namespace

bool EnterSandbox(const SandboxOptions &options, std::string *error)
{
    char cwd[4096];
    if (getcwd(cwd, sizeof cwd) == nullptr) {
        *error = Errno("getcwd");
        return false;
    }
    bool userns = geteuid() != 0;
    if (!Unshare(userns, error) || !LoopbackUp(error) || !SetUpMounts(options, userns, error)) {
        return false;
    }
    fflush(nullptr);
    pid_t init = fork();
    if (init < 0) {
        *error = Errno("fork");
        return false;
    }
    if (init > 0) {
        // The caller's process only waits; Ctrl-C is for the process inside.
        signal(SIGINT, SIG_IGN);
        signal(SIGQUIT, SIG_IGN);
        int status = 0;
        while (waitpid(init, &status, 0) < 0 && errno == EINTR) {
        }
        _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
    }
    if (RunInit(error) < 0) {
        std::fprintf(stderr, "sandbox: %s\n", error->c_str());
        _exit(125);
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (chdir(cwd) != 0) {
        (void)!chdir("/");
    }
    setenv("VBW_SANDBOX", "1", 1);
    return true;
}

}  // namespace vbw
