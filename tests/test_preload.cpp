// Unmodified servers from Debian's packages (rsync daemon, vsftpd, sshd with
// internal-sftp) run under `veskbandwidth run` in the sandbox's loopback-only
// network, driven by real clients (rsync, curl, sftp): their users are held to
// their limits, share their group's, are cut off when switched off, and leave
// no entries behind.
#include <dlfcn.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <regex>
#include <string>

#include "vbw_throttle_fixture.h"

namespace {

using vbw::Has;

const std::string kTool = VBW_BINARY_DIR "/veskbandwidth";
const std::string kFixtures = VBW_SOURCE_DIR "/tests/fixtures/preload/";
constexpr uid_t kBob = 1027;
constexpr uint64_t kLimitKBps = 256;
constexpr size_t kFileBytes = 1 << 20;
const std::string kSftp = "HOME=/tmp sftp -q -F /dev/null -i /tmp/ssh/client -o StrictHostKeyChecking=no "
                          "-o UserKnownHostsFile=/dev/null -o BatchMode=yes -P 2222 -b - ";

#ifdef __SANITIZE_ADDRESS__
constexpr bool kSanitized = true;
extern "C" void __asan_init();

// In a sanitizer build the preload library needs the sanitizer's runtime
// loaded first in every program it goes into; the daemons' own leaks are
// theirs.
void PreloadSanitizerRuntime()
{
    Dl_info info;
    ASSERT_NE(0, dladdr(reinterpret_cast<void *>(&__asan_init), &info));
    setenv("LD_PRELOAD", info.dli_fname, 1);
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
}
#else
constexpr bool kSanitized = false;
void PreloadSanitizerRuntime() {}
#endif

// The exit status of a shell command line (-1 when it did not exit).
int Shell(const std::string &line)
{
    int status = std::system(line.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

double Seconds(const std::string &line)
{
    int64_t start = vbw::NowMs();
    EXPECT_EQ(0, Shell(line)) << line;
    return static_cast<double>(vbw::NowMs() - start) / 1000.0;
}

bool Listening(int port)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool ok = connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    close(fd);
    return ok;
}

std::string Replace(std::string text, const std::string &from, const std::string &to)
{
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

void StartRsync()
{
    vbw::WriteFile("/tmp/rsyncd.secrets", "alice:pw\nbob:pw\n", 0600);
    ASSERT_EQ(0, Shell(kTool + " run -- rsync --daemon --no-detach --address=127.0.0.1 --port=8730 --config=" +
                       kFixtures + "rsyncd.conf >/tmp/daemon.log 2>&1 &"));
}

void StartVsftpd()
{
    vbw::MakeDirs("/run/vsftpd/empty");
    vbw::WriteFile("/tmp/vsftpd.conf", vbw::ReadFile(kFixtures + "vsftpd.conf"));
    // PAM reads its services from /etc/pam.d: the fixture's, in this mount namespace only.
    ASSERT_EQ(0, mount((kFixtures + "pam-permit").c_str(), "/etc/pam.d/vsftpd", nullptr, MS_BIND, nullptr));
    ASSERT_EQ(0, Shell(kTool + " run -- /usr/sbin/vsftpd /tmp/vsftpd.conf >/tmp/daemon.log 2>&1 &"));
}

void StartSshd()
{
    vbw::WriteFile("/etc/passwd", vbw::ReadFile("/etc/passwd") + "sshd:x:109:65534::/run/sshd:/usr/sbin/nologin\n");
    vbw::MakeDirs("/run/sshd");
    vbw::MakeDirs("/tmp/ssh");
    ASSERT_EQ(0, Shell("ssh-keygen -q -t ed25519 -N '' -f /tmp/ssh/host && ssh-keygen -q -t ed25519 -N '' -f "
                       "/tmp/ssh/client && cp /tmp/ssh/client.pub /tmp/ssh/authorized_keys"));
    ASSERT_EQ(0, Shell(kTool + " run -- /usr/sbin/sshd -D -e -f " + kFixtures + "sshd_config >/tmp/daemon.log 2>&1 &"));
}

// A server, how to start it, and its clients' command lines for user {u}:
// fetch the user's 1 MiB file f, store /tmp/up as up.
struct Server {
    std::string name;
    int protocol;
    int port;
    void (*start)();
    std::string download;
    std::string upload;
};

void PrintTo(const Server &server, std::ostream *out)
{
    *out << server.name;
}

const Server kServers[] = {
    {"rsync", VESK_BW_PROTOCOL_RSYNC, 8730, StartRsync,
     "RSYNC_PASSWORD=pw rsync -q rsync://{u}@127.0.0.1:8730/home/f /tmp/got-{u}",
     "RSYNC_PASSWORD=pw rsync -q /tmp/up rsync://{u}@127.0.0.1:8730/home/up"},
    {"vsftpd", VESK_BW_PROTOCOL_FTP, 2121, StartVsftpd,
     "HOME=/tmp curl -sS -u {u}:x -o /tmp/got-{u} ftp://127.0.0.1:2121/f",
     "HOME=/tmp curl -sS -u {u}:x -T /tmp/up ftp://127.0.0.1:2121/up"},
    {"sshd", VESK_BW_PROTOCOL_FTP, 2222, StartSshd, "echo 'get f /tmp/got-{u}' | " + kSftp + "{u}@127.0.0.1",
     "echo 'put /tmp/up up' | " + kSftp + "{u}@127.0.0.1"},
};

class PreloadTest : public vbw::SandboxTest {
protected:
    void SetUp() override
    {
        vbw::SandboxTest::SetUp();
        if (geteuid() != 0) {
            GTEST_SKIP() << "the daemons switch between users: needs root in the sandbox";
        }
        // Home directories on a tmpfs of this mount namespace.
        ASSERT_EQ(0, mount("vbw-home", "/home", "tmpfs", 0, "mode=0755"));
        std::string data(kFileBytes, 'x');
        for (const char *user : {"alice", "bob"}) {
            vbw::MakeDirs(std::string("/home/") + user);
            vbw::WriteFile(std::string("/home/") + user + "/f", data);
            ASSERT_EQ(0, Shell(std::string("chown -R ") + user + ":users /home/" + user));
        }
        vbw::WriteFile("/tmp/up", data);
        PreloadSanitizerRuntime();
    }

    void Start(const Server &server)
    {
        server.start();
        ASSERT_TRUE(vbw::WaitUntil([&] { return Listening(server.port); }, 10000)) << vbw::ReadFile("/tmp/daemon.log");
    }

    static std::string Command(const std::string &line, const char *user) { return Replace(line, "{u}", user); }

    // Waits for the download entry of a process of alice; its pid, or 0.
    static pid_t DownloadingPid()
    {
        pid_t pid = 0;
        vbw::WaitUntil(
            [&] {
                for (const auto &section : vbw::ReadSections(vbw::StatusFile("user", vbw::kAlice))) {
                    if (section.first.size() > 2 && section.first.compare(section.first.size() - 2, 2, "-2") == 0) {
                        pid = std::atoi(section.first.c_str());
                    }
                }
                return pid != 0;
            },
            10000);
        return pid;
    }
};

}  // namespace

namespace {

// Every server, each direction: the user's limit holds.  A transfer cannot end
// sooner than its size at the limit allows, its first bytes included (one
// chunk and the pacer's burst are far below the margin); the upper bound only
// says that it was not stalled.  Its entries are gone once the connection ended.
class ThrottledTransfer : public PreloadTest, public ::testing::WithParamInterface<std::tuple<Server, int>> {};

TEST_P(ThrottledTransfer, HoldsTheUsersLimitAndRemovesItsEntries)
{
    const Server &server = std::get<0>(GetParam());
    int direction = std::get<1>(GetParam());
    if (kSanitized && server.name == "vsftpd") {
        GTEST_SKIP() << "vsftpd's sessions hang with the sanitizer's runtime preloaded; the normal build runs it";
    }
    vbw::StoreGlobal(server.protocol, vbw::GlobalSettings());
    vbw::StoreLimit(VESK_BW_OWNER_USER, vbw::kAlice, server.protocol, kLimitKBps, kLimitKBps);
    Start(server);
    double due = static_cast<double>(kFileBytes) / (kLimitKBps * 1024);
    double took = Seconds(Command(direction == vbw::kDown ? server.download : server.upload, "alice"));
    EXPECT_GE(took, 0.95 * due);
    EXPECT_LT(took, 5 * due + 10);
    std::string stored = direction == vbw::kDown ? "/tmp/got-alice" : "/home/alice/up";
    EXPECT_EQ(kFileBytes, vbw::ReadFile(stored).size());
    EXPECT_TRUE(vbw::WaitUntil([] { return vbw::ReadSections(vbw::StatusFile("user", vbw::kAlice)).empty(); }, 5000))
        << vbw::ReadFile(vbw::StatusFile("user", vbw::kAlice));
}

INSTANTIATE_TEST_SUITE_P(Servers, ThrottledTransfer,
                         ::testing::Combine(::testing::ValuesIn(kServers), ::testing::Values(vbw::kDown, vbw::kUp)),
                         [](const ::testing::TestParamInfo<std::tuple<Server, int>> &info) {
                             return std::get<0>(info.param).name +
                                    (std::get<1>(info.param) == vbw::kDown ? "_download" : "_upload");
                         });

// alice and bob download at once from the rsync daemon under the group limit
// of users: together they get the group's speed, not twice it.
TEST_F(PreloadTest, TwoUsersShareTheirGroupsLimit)
{
    vbw::GlobalSettings groupOnly;
    groupOnly.userGroup = VESK_BW_POLICY_GROUP_ONLY;
    groupOnly.occupy = VESK_BW_OCCUPY_ALL;
    vbw::StoreGlobal(VESK_BW_PROTOCOL_RSYNC, groupOnly);
    vbw::StoreLimit(VESK_BW_OWNER_GROUP, vbw::kUsers, VESK_BW_PROTOCOL_RSYNC, 0, kLimitKBps);
    Start(kServers[0]);
    int64_t start = vbw::NowMs();
    pid_t bob = vbw::Fork([] { return Shell(Command(kServers[0].download, "bob")); });
    EXPECT_EQ(0, Shell(Command(kServers[0].download, "alice")));
    EXPECT_EQ(0, vbw::WaitExit(bob, 60000));
    double due = 2.0 * kFileBytes / (kLimitKBps * 1024);
    EXPECT_GE(static_cast<double>(vbw::NowMs() - start) / 1000.0, 0.8 * due);
}

// A transfer that an administrator switches off ends long before its time:
// the daemon's socket is shut down under it.
TEST_F(PreloadTest, SwitchedOffTransferIsCutOff)
{
    vbw::StoreGlobal(VESK_BW_PROTOCOL_RSYNC, vbw::GlobalSettings());
    vbw::StoreLimit(VESK_BW_OWNER_USER, vbw::kAlice, VESK_BW_PROTOCOL_RSYNC, 0, kLimitKBps / 4);
    Start(kServers[0]);
    int64_t start = vbw::NowMs();
    pid_t client = vbw::Fork([] { return Shell(Command(kServers[0].download, "alice")); });
    pid_t daemon = DownloadingPid();
    ASSERT_NE(0, daemon);
    ASSERT_EQ(0, VESKBandwidthStatusSetActiveByUserName("alice", vbw::kDown, daemon, 0));
    int status = vbw::WaitExit(client, 10000);
    EXPECT_NE(0, status);
    EXPECT_NE(-1, status) << "the client still runs";
    double due = static_cast<double>(kFileBytes) / (kLimitKBps / 4 * 1024);
    EXPECT_LT(static_cast<double>(vbw::NowMs() - start) / 1000.0, 0.5 * due);
}

// A daemon killed in the middle of a transfer cannot remove its entry; once
// the entry is older than the 30 s that readers allow, the next reader drops it.
TEST_F(PreloadTest, KilledTransfersEntryGoesOnceStale)
{
    vbw::StoreGlobal(VESK_BW_PROTOCOL_RSYNC, vbw::GlobalSettings());
    vbw::StoreLimit(VESK_BW_OWNER_USER, vbw::kAlice, VESK_BW_PROTOCOL_RSYNC, 0, kLimitKBps / 4);
    Start(kServers[0]);
    pid_t client = vbw::Fork([] { return Shell(Command(kServers[0].download, "alice")); });
    pid_t daemon = DownloadingPid();
    ASSERT_NE(0, daemon);
    ASSERT_EQ(0, kill(daemon, SIGKILL));
    EXPECT_NE(0, vbw::WaitExit(client, 10000));
    std::string file = vbw::StatusFile("user", vbw::kAlice);
    std::string section = vbw::SectionName(daemon, vbw::kDown);
    ASSERT_TRUE(vbw::HasSection(file, section));
    std::string aged = std::regex_replace(vbw::ReadFile(file), std::regex("timestamp=[0-9]+"),
                                          "timestamp=" + std::to_string(time(nullptr) - 60));
    vbw::WriteFile(file, aged, 0666);
    vbw::EnumerateFile(file);
    EXPECT_FALSE(vbw::HasSection(file, section)) << vbw::ReadFile(file);
}

// run --check reads the program's ELF headers: a static program (here a
// static-pie one, which has a dynamic section but no interpreter and no
// needed library) cannot be throttled, and run refuses to run it.
TEST_F(PreloadTest, CheckTellsStaticFromDynamicPrograms)
{
    struct Case {
        std::string line;
        int status;
        std::string output;
    } cases[] = {
        {"run --check -- rsync", 0, "/usr/bin/rsync: can be throttled"},
        {"run --check -- /sbin/ldconfig", 1, "cannot be throttled: /sbin/ldconfig is statically linked"},
        {"run -- /sbin/ldconfig --version", 126, "statically linked"},
        {"run -- no-such-program", 127, "command not found"},
        {"run --role peer -- true", 125, "--role is client or server"},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(c.status, Shell(kTool + " " + c.line + " >/tmp/out 2>&1")) << c.line;
        EXPECT_TRUE(Has(vbw::ReadFile("/tmp/out"), c.output)) << c.line << ": " << vbw::ReadFile("/tmp/out");
    }
}

// The sandbox's network: loopback only, and up.
using SandboxNetwork = vbw::SandboxTest;
TEST_F(SandboxNetwork, HasOnlyLoopback)
{
    ifaddrs *interfaces = nullptr;
    ASSERT_EQ(0, getifaddrs(&interfaces));
    int up = 0;
    for (ifaddrs *i = interfaces; i != nullptr; i = i->ifa_next) {
        EXPECT_STREQ("lo", i->ifa_name);
        up += (i->ifa_flags & IFF_UP) != 0 ? 1 : 0;
    }
    freeifaddrs(interfaces);
    EXPECT_LT(0, up);
}

}  // namespace
