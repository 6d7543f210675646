#include "vbw_throttle_fixture.h"

#include <dlfcn.h>
#include <string.h>
#include <time.h>

#include <sstream>

#include "vbw_test.h"
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

void WriteStatusFile(const std::string &owner, unsigned id, const std::vector<StatusEntry> &entries)
{
    std::ostringstream out;
    for (const StatusEntry &e : entries) {
        out << "[" << SectionName(e.pid, e.transfer) << "]\n"
            << "pid=" << e.pid << "\nid=" << id << "\nuid=" << e.uid << "\nactive=" << e.active
            << "\ntimestamp=" << (int64_t)time(NULL) - e.age << "\ncurrent speed=" << e.current
            << "\nexpect speed=0\nfilename=/share/f" << e.pid << "\nowner type=" << owner
            << "\nprotocol type=" << e.protocol << "\ntransfer type=" << TransferName(e.transfer)
            << "\nprogress=0\n";
    }
    MakeDirs("/tmp/bandwidth", 0777);
    WriteFile("/tmp/bandwidth/" + owner + "-" + std::to_string(id), out.str(), 0666);
}

Sections ReadSections(const std::string &path)
{
    Sections sections;
    std::istringstream in(ReadFile(path));
    std::string line;
    std::string current;
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

void WriteConfFile(const std::string &file, const std::string &content)
{
    MakeDirs("/usr/vesk/etc/bandwidth");
    WriteFile("/usr/vesk/etc/bandwidth/" + file, content);
}

VESK_BANDWIDTH_LIMIT Limit(int owner_type, unsigned id, uint64_t upload, uint64_t download, int protocol)
{
    VESK_BANDWIDTH_LIMIT limit;
    memset(&limit, 0, sizeof(limit));
    limit.id = id;
    limit.iCurState = limit.iState = VESK_BW_STATE_ENABLED;
    limit.iProtocol = (VESK_BW_PROTOCOL_TYPE)protocol;
    limit.iOwnerType = (VESK_BW_OWNER_TYPE)owner_type;
    limit.ullCurRate[VESK_BW_TRANSFER_UPLOAD] = limit.ullRate[VESK_BW_TRANSFER_UPLOAD] = upload;
    limit.ullCurRate[VESK_BW_TRANSFER_DOWNLOAD] = limit.ullRate[VESK_BW_TRANSFER_DOWNLOAD] = download;
    return limit;
}

void FakeGroupList(const std::vector<std::string> *entries)
{
    g_fakeGroups = entries;
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
