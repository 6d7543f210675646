// vbw-preload-bench: three concurrent curl downloads of one user from a local
// HTTP server (python's http.server) in the sandbox's loopback-only network,
// at 512 KiB/s and 8 MiB/s, throttled side by side by `veskbandwidth run`
// (the three processes share the user's limit through the status files), by
// trickle -s (each client a third of the limit: it cannot share) and by
// trickled (one shared limit) when installed; three unthrottled curls give
// the CPU that receiving costs without any limit.
//
// Figures per run, all after the first second: the aggregate over the limit
// and Jain's index of the three clients' averages, the clients' CPU ms per
// MiB received (/proc/PID/schedstat), and the lowest and highest aggregate
// 100-ms window.  Progress is what each client has read from its TCP
// sockets, as the kernel counts it (sock_diag: the bytes received less those
// still queued), which leaves the clients untouched.  What a client writes
// (/proc/PID/io wchar) would not do: it also counts the status files that the
// library writes at every shared pass, and comes in lumps of stdio's buffer.
//
// Usage: vbw-preload-bench [--quick] [--json]
#include <dirent.h>
#include <fcntl.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "bench_support.h"

namespace {

using vbw::bench::MonotonicSeconds;

constexpr int kClients = 3;
constexpr int kPort = 8088;
constexpr double kWindowSeconds = 0.1;
constexpr double kSettleSeconds = 1.0;                // windows and averages start after it
const char kServedFile[] = "/tmp/preload-bench/big";  // sparse: no client reaches its end, unlimited either
const char kUrl[] = "http://127.0.0.1:8088/big";
const char kTrickledSocket[] = "/tmp/preload-bench/trickled.sock";

struct Options {
    bool quick = false;
    bool json = false;
};

struct Result {
    std::string tool;
    uint64_t limitBps = 0;
    double ratio = 0;  // aggregate after the first second / limit
    double jain = 0;
    double cpuMsPerMiB = 0;
    double windowMin = 0;  // aggregate 100-ms windows after the first second, / limit
    double windowMax = 0;
    double clientBps[kClients] = {};
};

struct Client {
    pid_t pid = -1;
    uint64_t bytes = 0;    // received so far
    uint64_t settled = 0;  // received by the end of the first second
    uint64_t cpuNs = 0;    // on a CPU so far
    uint64_t cpuSettledNs = 0;
};

bool Installed(const char *program)
{
    return access((std::string("/usr/bin/") + program).c_str(), X_OK) == 0;
}

pid_t Spawn(const std::vector<std::string> &args)
{
    std::vector<char *> argv;
    for (const std::string &arg : args) {
        argv.push_back(const_cast<char *>(arg.c_str()));
    }
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        int null = open("/dev/null", O_RDWR | O_CLOEXEC);
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    if (pid < 0) {
        throw vbw::bench::Failure(std::string("fork: ") + std::strerror(errno));
    }
    return pid;
}

// Nanoseconds that the process has run on a CPU.
uint64_t CpuNs(pid_t pid)
{
    std::ifstream schedstat("/proc/" + std::to_string(pid) + "/schedstat");
    uint64_t ns = 0;
    schedstat >> ns;
    return ns;
}

// The bytes read so far from each IPv4 TCP socket of the sandbox's network,
// by the socket's inode.
std::map<ino_t, uint64_t> BytesReadBySocket()
{
    // A kernel older than the headers sends a shorter tcp_info.
    constexpr size_t kInfoSize = offsetof(tcp_info, tcpi_bytes_received) + sizeof(tcp_info::tcpi_bytes_received);
    std::map<ino_t, uint64_t> read;
    vbw::bench::Fd diag(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    struct {
        nlmsghdr header;
        inet_diag_req_v2 request;
    } query{};
    query.header.nlmsg_len = sizeof query;
    query.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    query.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    query.request.sdiag_family = AF_INET;
    query.request.sdiag_protocol = IPPROTO_TCP;
    query.request.idiag_states = ~0u;
    query.request.idiag_ext = 1 << (INET_DIAG_INFO - 1);
    if (diag.fd < 0 || send(diag.fd, &query, sizeof query, 0) != static_cast<ssize_t>(sizeof query)) {
        throw vbw::bench::Failure(vbw::bench::Errno("sock_diag"));
    }
    alignas(nlmsghdr) char buffer[32768];
    for (;;) {
        ssize_t size = recv(diag.fd, buffer, sizeof buffer, 0);
        if (size <= 0) {
            throw vbw::bench::Failure(vbw::bench::Errno("sock_diag"));
        }
        int left = static_cast<int>(size);
        for (auto *header = reinterpret_cast<nlmsghdr *>(buffer); NLMSG_OK(header, left);
             header = NLMSG_NEXT(header, left)) {
            if (header->nlmsg_type == NLMSG_DONE) {
                return read;
            }
            if (header->nlmsg_type == NLMSG_ERROR) {
                throw vbw::bench::Failure("sock_diag refused the query");
            }
            auto *socketInfo = static_cast<inet_diag_msg *>(NLMSG_DATA(header));
            int attributesSize = static_cast<int>(header->nlmsg_len - NLMSG_LENGTH(sizeof *socketInfo));
            for (auto *attribute = reinterpret_cast<rtattr *>(socketInfo + 1); RTA_OK(attribute, attributesSize);
                 attribute = RTA_NEXT(attribute, attributesSize)) {
                if (attribute->rta_type == INET_DIAG_INFO && RTA_PAYLOAD(attribute) >= kInfoSize) {
                    auto *info = static_cast<const tcp_info *>(RTA_DATA(attribute));
                    read[socketInfo->idiag_inode] = info->tcpi_bytes_received - socketInfo->idiag_rqueue;
                }
            }
        }
    }
}

// The bytes that a client has read from its TCP sockets.
uint64_t ReceivedBytes(pid_t pid, const std::map<ino_t, uint64_t> &bytesRead)
{
    std::string directory = "/proc/" + std::to_string(pid) + "/fd";
    DIR *fds = opendir(directory.c_str());
    if (fds == nullptr) {
        return 0;
    }
    uint64_t total = 0;
    for (dirent *entry = readdir(fds); entry != nullptr; entry = readdir(fds)) {
        char link[64] = {};
        unsigned long inode = 0;
        if (readlinkat(dirfd(fds), entry->d_name, link, sizeof link - 1) > 0 &&
            std::sscanf(link, "socket:[%lu]", &inode) == 1) {
            auto found = bytesRead.find(inode);
            total += found != bytesRead.end() ? found->second : 0;
        }
    }
    closedir(fds);
    return total;
}

bool Listening()
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool ok = connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    close(fd);
    return ok;
}

void WaitFor(const std::function<bool()> &ready, const char *what)
{
    for (double end = MonotonicSeconds() + 10; !ready(); usleep(20000)) {
        if (MonotonicSeconds() > end) {
            throw vbw::bench::Failure(std::string(what) + " did not start");
        }
    }
}

// The command line of one client: the throttling tool's words, then curl.
std::vector<std::string> ClientCommand(const std::string &tool, uint64_t limitBps, double seconds)
{
    std::string share = std::to_string(limitBps / kClients / 1024);
    std::vector<std::string> curl = {"curl", "-s", "-o", "/dev/null", "--max-time", std::to_string(seconds + 2), kUrl};
    std::vector<std::string> words;
    if (tool == "veskbandwidth run") {
        words = {VBW_TOOL, "run", "--user", std::to_string(vbw::bench::kUsers[0]), "--protocol", "ftp", "--"};
    } else if (tool == "trickle -s") {
        words = {"trickle", "-s", "-d", share};
    } else if (tool == "trickled") {
        words = {"trickle", "-n", kTrickledSocket};
    }
    words.insert(words.end(), curl.begin(), curl.end());
    return words;
}

void Summarize(const std::vector<Client> &clients, double measured, Result *result)
{
    double sum = 0, squares = 0, cpuMs = 0;
    for (int i = 0; i < kClients; ++i) {
        result->clientBps[i] = static_cast<double>(clients[i].bytes - clients[i].settled) / measured;
        sum += result->clientBps[i];
        squares += result->clientBps[i] * result->clientBps[i];
        cpuMs += static_cast<double>(clients[i].cpuNs - clients[i].cpuSettledNs) / 1e6;
    }
    double mebibytes = sum * measured / (1024.0 * 1024.0);
    result->ratio = result->limitBps > 0 ? sum / static_cast<double>(result->limitBps) : 0;
    result->jain = squares > 0 ? sum * sum / (kClients * squares) : 0;
    result->cpuMsPerMiB = mebibytes > 0 ? cpuMs / mebibytes : 0;
}

Result Measure(const std::string &tool, uint64_t limitBps, double seconds)
{
    Result result;
    result.tool = tool;
    result.limitBps = limitBps;
    vbw::bench::ClearStatusFiles();
    vbw::bench::ConfigureUserLimit(vbw::bench::kUsers[0], limitBps / 1024);  // 0: unlimited
    pid_t daemon = -1;
    if (tool == "trickled") {
        daemon = Spawn({"trickled", "-f", "-n", kTrickledSocket, "-d", std::to_string(limitBps / 1024)});
        WaitFor([] { return access(kTrickledSocket, F_OK) == 0; }, "trickled");
    }
    std::vector<Client> clients(kClients);
    for (Client &client : clients) {
        client.pid = Spawn(ClientCommand(tool, limitBps, seconds));
    }
    double start = MonotonicSeconds(), last = start, lastTotal = 0, settledAt = start;
    result.windowMin = limitBps > 0 ? 1e9 : 0;
    for (double now = start; now - start < seconds; now = MonotonicSeconds()) {
        usleep(static_cast<useconds_t>(kWindowSeconds * 1e6));
        now = MonotonicSeconds();
        double total = 0;
        std::map<ino_t, uint64_t> bytesRead = BytesReadBySocket();
        bool settling = now - start < kSettleSeconds;
        settledAt = settling ? now : settledAt;
        for (Client &client : clients) {
            client.bytes = std::max(client.bytes, ReceivedBytes(client.pid, bytesRead));
            client.cpuNs = std::max(client.cpuNs, CpuNs(client.pid));
            client.settled = settling ? client.bytes : client.settled;
            client.cpuSettledNs = settling ? client.cpuNs : client.cpuSettledNs;
            total += static_cast<double>(client.bytes);
        }
        double window = limitBps > 0 ? (total - lastTotal) / (now - last) / static_cast<double>(limitBps) : 0;
        if (now - start >= kSettleSeconds + kWindowSeconds) {
            result.windowMin = std::min(result.windowMin, window);
            result.windowMax = std::max(result.windowMax, window);
        }
        last = now;
        lastTotal = total;
    }
    double measured = last - settledAt;
    for (Client &client : clients) {
        kill(client.pid, SIGINT);
        waitpid(client.pid, nullptr, 0);
    }
    if (daemon > 0) {
        kill(daemon, SIGTERM);
        waitpid(daemon, nullptr, 0);
        unlink(kTrickledSocket);
    }
    Summarize(clients, measured, &result);
    return result;
}

void PrintTable(const std::vector<Result> &results, double seconds)
{
    std::printf("Three curl downloads of one user from a local HTTP server, %.0f s each run\n", seconds);
    std::printf("%-18s %10s %8s %8s %10s %8s %8s\n", "tool", "limit", "ratio", "jain", "cpu ms/MiB", "win min",
                "win max");
    for (const Result &r : results) {
        std::printf("%-18s %6.0f KiB %8.4f %8.4f %10.3f %8.3f %8.3f\n", r.tool.c_str(),
                    static_cast<double>(r.limitBps) / 1024, r.ratio, r.jain, r.cpuMsPerMiB, r.windowMin, r.windowMax);
    }
    std::printf("Targets for veskbandwidth run: ratio 0.98-1.02 at jain >= 0.999, CPU within 0.5 ms/MiB of curl's\n"
                "without a limit, 100-ms windows within 0.8-1.2 after the first second.\n");
}

void PrintJson(const std::vector<Result> &results, double seconds)
{
    std::printf("{\"seconds\": %.1f, \"clients\": %d, \"runs\": [", seconds, kClients);
    for (size_t i = 0; i < results.size(); ++i) {
        const Result &r = results[i];
        std::printf("%s\n {\"tool\": \"%s\", \"limit_bps\": %llu, \"ratio\": %.6f, \"jain\": %.6f, "
                    "\"cpu_ms_per_mib\": %.4f, \"window_min\": %.4f, \"window_max\": %.4f, "
                    "\"client_bps\": [%.1f, %.1f, %.1f]}",
                    i ? "," : "", r.tool.c_str(), static_cast<unsigned long long>(r.limitBps), r.ratio, r.jain,
                    r.cpuMsPerMiB, r.windowMin, r.windowMax, r.clientBps[0], r.clientBps[1], r.clientBps[2]);
    }
    std::printf("]}\n");
}

std::vector<Result> MeasureAll(double seconds)
{
    mkdir("/tmp/preload-bench", 0755);
    int fd = open(kServedFile, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || ftruncate(fd, off_t(1) << 40) != 0) {
        throw vbw::bench::Failure(std::string("cannot make the served file: ") + std::strerror(errno));
    }
    close(fd);
    pid_t server = Spawn({"python3", "-m", "http.server", std::to_string(kPort), "--bind", "127.0.0.1", "--directory",
                          "/tmp/preload-bench"});
    WaitFor(Listening, "the HTTP server");
    std::vector<Result> results = {Measure("curl, no limit", 0, seconds)};
    std::vector<std::string> tools = {"veskbandwidth run"};
    if (Installed("trickle")) {
        tools.push_back("trickle -s");
    }
    if (Installed("trickled")) {
        tools.push_back("trickled");
    }
    for (uint64_t limit : {uint64_t(512) << 10, uint64_t(8) << 20}) {
        for (const std::string &tool : tools) {
            results.push_back(Measure(tool, limit, seconds));
        }
    }
    kill(server, SIGTERM);
    waitpid(server, nullptr, 0);
    return results;
}

}  // namespace

int main(int argc, char **argv)
{
    Options options;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--quick") == 0) {
            options.quick = true;
        } else if (std::strcmp(argv[i], "--json") == 0) {
            options.json = true;
        } else {
            std::fprintf(stderr, "usage: vbw-preload-bench [--quick] [--json]\n");
            return 2;
        }
    }
    std::string error;
    if (!vbw::bench::EnterBenchSandbox(&error)) {
        std::fprintf(stderr, "vbw-preload-bench: cannot enter the sandbox: %s\n", error.c_str());
        return 125;
    }
    double seconds = options.quick ? 3 : 10;
    try {
        std::vector<Result> results = MeasureAll(seconds);
        options.json ? PrintJson(results, seconds) : PrintTable(results, seconds);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "vbw-preload-bench: %s\n", e.what());
        return 1;
    }
    return 0;
}
