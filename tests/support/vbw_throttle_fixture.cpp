#include "vbw_throttle_fixture.h"

#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <time.h>

#include <algorithm>
#include <sstream>

#include "vesk_account.h"

namespace vbw {

namespace {

const std::vector<std::string> *g_fakeGroups = nullptr;

const char *TransferName(int transfer_type)
{
    return VESK_BW_TRANSFER_UPLOAD == transfer_type ? "upload" : "download";
}

}  // namespace

std::string SectionName(pid_t pid, int transfer_type)
{
    return std::to_string((unsigned)pid) + "-" + std::to_string(transfer_type);
}

std::string StatusFile(const std::string &owner, unsigned id)
{
    return "/tmp/bandwidth/" + owner + "-" + std::to_string(id);
}

void WriteStatusFile(const std::string &owner, unsigned id, const std::vector<StatusEntry> &entries)
{
    std::ostringstream out;
    for (const StatusEntry &e : entries) {
        out << "[" << SectionName(e.pid, e.transfer) << "]\n"
            << "pid=" << e.pid << "\nid=" << id << "\nuid=" << e.uid << "\nactive=" << e.active
            << "\ntimestamp=" << (int64_t)time(NULL) - e.age << "\ncurrent speed=" << e.current
            << "\nexpect speed=" << e.expect << "\nfilename=/share/f" << e.pid << "\nowner type=" << owner
            << "\nprotocol type=" << e.protocol << "\ntransfer type=" << TransferName(e.transfer) << "\nprogress=0\n";
    }
    MakeDirs("/tmp/bandwidth", 0777);
    WriteFile(StatusFile(owner, id), out.str(), 0666);
}

Sections ReadSections(const std::string &path)
{
    Sections sections;
    std::istringstream in(ReadFile(path));
    std::string line, current;
    while (std::getline(in, line)) {
        if (!line.empty() && '[' == line[0] && ']' == line.back()) {
            current = line.substr(1, line.size() - 2);
            sections[current];
        } else if (line.find('=') != std::string::npos && !current.empty()) {
            size_t eq = line.find('=');
            sections[current][line.substr(0, eq)] = line.substr(eq + 1);
        }
    }
    return sections;
}

std::map<std::string, std::string> ReadSection(const std::string &path, const std::string &section)
{
    return ReadSections(path)[section];
}

bool HasSection(const std::string &path, const std::string &section)
{
    return ReadSections(path).count(section) > 0;
}

bool HasEntry(const std::string &owner, unsigned id, pid_t pid)
{
    return HasSection(StatusFile(owner, id), SectionName(pid, kDown));
}

void WriteConfFile(const std::string &file, const std::string &content)
{
    MakeDirs("/usr/vesk/etc/bandwidth");
    WriteFile("/usr/vesk/etc/bandwidth/" + file, content);
}

VESK_BANDWIDTH_CONF Conf(int ownerType, unsigned id, int protocol, uint64_t upKBps, uint64_t downKBps, int state,
                         const std::string &plan)
{
    VESK_BANDWIDTH_CONF conf;
    memset(&conf, 0, sizeof(conf));
    conf.id = id;
    conf.iState = (VESK_BW_LIMIT_STATE)state;
    conf.iProtocol = (VESK_BW_PROTOCOL_TYPE)protocol;
    conf.iOwnerType = (VESK_BW_OWNER_TYPE)ownerType;
    conf.ullRate[VESK_BW_TRANSFER_UPLOAD] = upKBps;
    conf.ullRate[VESK_BW_TRANSFER_DOWNLOAD] = downKBps;
    snprintf(conf.szSchedulePlan, sizeof(conf.szSchedulePlan), "%s", plan.c_str());
    return conf;
}

VESK_BANDWIDTH_LIMIT Limit(int owner_type, unsigned id, uint64_t upload, uint64_t download, int protocol)
{
    VESK_BANDWIDTH_LIMIT limit;
    memset(&limit, 0, sizeof(limit));
    VESK_BANDWIDTH_CONF conf = Conf(owner_type, id, protocol, upload, download);
    memcpy(&limit, &conf, sizeof(conf));  // a limit record begins with the fields of a limit
    limit.iCurState = VESK_BW_STATE_ENABLED;
    limit.ullCurRate[VESK_BW_TRANSFER_UPLOAD] = upload;
    limit.ullCurRate[VESK_BW_TRANSFER_DOWNLOAD] = download;
    return limit;
}

std::string Text(const VESK_BANDWIDTH_CONF &conf)
{
    std::ostringstream out;
    out << "id " << conf.id << " states " << conf.iCurState << "/" << conf.iState << " protocol " << conf.iProtocol
        << " owner " << conf.iOwnerType;
    for (const uint64_t *rates : {conf.ullCurRate, conf.ullRate, conf.ullCustomRate}) {
        out << " rates " << rates[VESK_BW_TRANSFER_UPLOAD] << "/" << rates[VESK_BW_TRANSFER_DOWNLOAD];
    }
    return out.str() + " plan " +
           std::string(conf.szSchedulePlan, strnlen(conf.szSchedulePlan, sizeof(conf.szSchedulePlan)));
}

VESK_BANDWIDTH_GLOBAL_CONF GlobalConf(int protocol, const GlobalSettings &settings)
{
    // No padding: every byte is set.
    VESK_BANDWIDTH_GLOBAL_CONF conf = {VESK_BW_STATE_NOTEXISTED,
                                       (VESK_BW_LIMIT_STATE)settings.state,
                                       (VESK_BW_PROTOCOL_TYPE)protocol,
                                       (VESK_BW_GROUP_POLICY)settings.userGroup,
                                       (VESK_BW_GROUP_POLICY)settings.interGroup,
                                       (VESK_BW_OCCUPY_POLICY)settings.occupy,
                                       {}};
    snprintf(conf.szSchedulePlan, sizeof(conf.szSchedulePlan), "%s", settings.plan.c_str());
    return conf;
}

VESK_BANDWIDTH_STATUS Status(pid_t pid, uint64_t current, uint64_t expect)
{
    VESK_BANDWIDTH_STATUS status;
    memset(&status, 0, sizeof(status));
    status.pid = pid;
    status.id = status.uid = kAlice;
    status.active = 1;
    status.timestamp = time(NULL);
    status.current_speed = current;
    status.expect_speed = expect;
    snprintf(status.filename, sizeof(status.filename), "/share/f%d", (int)pid);
    status.owner_type = VESK_BW_OWNER_USER;
    status.protocol_type = VESK_BW_PROTOCOL_FTP;
    status.transfer_type = VESK_BW_TRANSFER_DOWNLOAD;
    return status;
}

Hash::Hash(std::initializer_list<std::pair<std::string, std::string>> pairs) : hash_(VLIBCSzHashAlloc(16))
{
    for (const auto &pair : pairs) {
        EXPECT_LE(0, VLIBCSzHashSetValue(&hash_, pair.first.c_str(), pair.second.c_str()));
    }
}

Pairs Hash::Contents() const
{
    Pairs pairs;
    for (int i = 0; i < VLIBCSzHashCount(hash_); ++i) {
        pairs.emplace_back(VLIBCSzHashKeyAt(hash_, i), VLIBCSzHashValueAt(hash_, i));
    }
    return pairs;
}

void ConfigTest::TearDown()
{
    VESKBandwidthConfigFree(&config);
    FakeGroupList(nullptr);
}

void ConfigTest::Use(const std::vector<VESK_BANDWIDTH_LIMIT> &limits)
{
    free(config.pLimit);
    config.iLimitCount = (int)limits.size();
    config.pLimit = (VESK_BANDWIDTH_LIMIT *)calloc(limits.size(), sizeof(VESK_BANDWIDTH_LIMIT));
    std::copy(limits.begin(), limits.end(), config.pLimit);
}

void ConfigTest::Occupy(const std::vector<std::pair<unsigned, uint64_t>> &shares)
{
    std::vector<VESK_BANDWIDTH_LIMIT> limits;
    for (const auto &share : shares) {
        limits.push_back(Limit(kAlice == share.first ? VESK_BW_OWNER_USER : VESK_BW_OWNER_GROUP, share.first, 0, 100));
        limits.back().ullOccupyShare = share.second;
    }
    Use(limits);
    config.blGroupConfExist = 1;
}

void FakeGroupList(const std::vector<std::string> *entries)
{
    g_fakeGroups = entries;
}

void StoreGlobal(int protocol, const GlobalSettings &settings)
{
    VESK_BANDWIDTH_GLOBAL_CONF conf = GlobalConf(protocol, settings);
    ASSERT_EQ(0, VESKBandwidthGlobalConfSet(&conf));
}

void StoreLimit(int ownerType, unsigned id, int protocol, uint64_t upKBps, uint64_t downKBps, int state,
                const std::string &plan)
{
    VESK_BANDWIDTH_CONF conf = Conf(ownerType, id, protocol, upKBps, downKBps, state, plan);
    ASSERT_EQ(0, VESKBandwidthConfSetByID(&conf));
}

void StoreUsersGroupLimit(uint64_t downKBps)
{
    StoreGlobal(kFtp, {VESK_BW_STATE_ENABLED, VESK_BW_POLICY_GROUP_ONLY, VESK_BW_POLICY_MAX, VESK_BW_OCCUPY_ALL, ""});
    StoreLimit(VESK_BW_OWNER_GROUP, kUsers, kFtp, 0, downKBps);
}

pid_t ForkSimulator(const char *user, int protocol, int transferType, size_t size)
{
    return Fork([=] {
        prctl(PR_SET_NAME, "veskbandwidth");
        return 0 == VESKBandwidthSimulate(user, protocol, transferType, size) ? 0 : 1;
    });
}

void InstallKillallStandIn(int status)
{
    WriteFile("/usr/bin/killall",
              "#!/bin/sh\n"
              "echo \"$*\" >> /tmp/killall.args\n"
              "[ \"$1\" = -sighup ] || exit 2\n"
              "for d in /proc/[0-9]*; do\n"
              "  [ \"$(cat \"$d/comm\" 2>/dev/null)\" = \"$2\" ] && kill -HUP \"${d#/proc/}\"\n"
              "done\n"
              "exit " +
                  std::to_string(status) + "\n",
              0755);
}

int EnumerateFile(const std::string &path)
{
    VESK_BANDWIDTH_STATUS *list = nullptr;
    int count = VESKBandwidthIStatusGetAll(path.c_str(), VESK_BW_PROTOCOL_ALL, VESK_BW_TRANSFER_ALL, &list, 0);
    VESKBandwidthStatusListFree(&list);
    return count;
}

}  // namespace vbw

// Stands in front of the platform's group list while a fake list is set.
extern "C" VLIBC_SZLIST *VLIBGroupInfoListGet(const char *szUserName, int iFlags)
{
    if (nullptr == vbw::g_fakeGroups) {
        typedef VLIBC_SZLIST *(*Real)(const char *, int);
        static Real real = (Real)dlsym(RTLD_NEXT, "VLIBGroupInfoListGet");
        return real(szUserName, iFlags);
    }
    VLIBC_SZLIST *pList = VLIBCSzListAlloc(8);
    for (const std::string &entry : *vbw::g_fakeGroups) {
        VLIBCSzListPush(&pList, entry.c_str());
    }
    return pList;
}
