// The section-file reader on any bytes: the platform lists and reads every
// section, the header lines make the sections, every section converts
// without harm to each kind of record, and the status enumeration lists,
// merges and collects the sections of the file.
#include <string.h>

#include <set>
#include <string>

#include "support.h"
#include "veskbandwidth.h"
#include "vesk_file.h"

using namespace vesk_fuzz;

namespace {

// The names of the lines that the platform takes for section headers.
std::set<std::string> HeaderNames(const uint8_t *data, size_t size)
{
    std::set<std::string> names;
    for (size_t start = 0; start < size;) {
        const char *line = (const char *)data + start;
        const char *end = (const char *)memchr(line, '\n', size - start);
        size_t length = NULL == end ? size - start : (size_t)(end - line) + 1;
        if (VLIBCIFileIsSection(line, length)) {
            size_t body = length - (NULL == end ? 0 : 1);
            names.insert(std::string(line + 1, body - 2));
        }
        start += length;
    }
    return names;
}

// Converts a section's pairs into each kind of record over a record of junk.
void ConvertEveryWay(const VLIBC_SZHASH *pHash)
{
    VESK_BANDWIDTH_STATUS status;
    memset(&status, 0xA5, sizeof(status));
    VESKBandwidthInitStatusFromHash(&status, pHash);
    VESK_BANDWIDTH_CONF conf;
    memset(&conf, 0xA5, sizeof(conf));
    int iConverted = VESKBandwidthInitConfFromHash(&conf, pHash);
    Check(0 != iConverted || NULL == VLIBCSzHashGetValue(pHash, "schedule plan") ||
              strnlen(conf.szSchedulePlan, sizeof(conf.szSchedulePlan)) < sizeof(conf.szSchedulePlan),
          "a plan read from text is terminated");
    VESK_BANDWIDTH_GLOBAL_CONF global;
    memset(&global, 0xA5, sizeof(global));
    VESKBandwidthInitGlobalConfFromHash(&global, pHash);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***argv)
{
    RequireSandbox((*argv)[0]);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string path = ScratchFile("user-1026");
    WriteWhole(path, data, size);

    VLIBC_SZLIST *pNames = NULL;
    int iSections = VLIBCFileEnumSection(path.c_str(), &pNames);
    std::set<std::string> listed;
    for (int i = 0; i < iSections; ++i) {
        listed.insert(VLIBCSzListGet(pNames, i));
    }
    Check(iSections >= 0 && listed == HeaderNames(data, size), "the header lines, and nothing else, make the sections");
    for (int i = 0; i < iSections; ++i) {
        VLIBC_SZHASH *pHash = VLIBCSzHashAlloc(16);
        Check(1 == VLIBCFileGetSection(path.c_str(), VLIBCSzListGet(pNames, i), &pHash),
              "a listed section can be read while the file is unchanged");
        ConvertEveryWay(pHash);
        VLIBCSzHashFree(pHash);
    }
    VLIBCSzListFree(pNames);

    VESK_BANDWIDTH_STATUS *pList = NULL;
    int iListed = VESKBandwidthIStatusGetAll(path.c_str(), VESK_BW_PROTOCOL_ALL, VESK_BW_TRANSFER_ALL, &pList,
                                             size > 0 && (data[0] & 1));
    Check(iListed >= 0 && iListed <= iSections, "the enumeration lists at most the sections of the file");
    for (VESK_BANDWIDTH_STATUS *p = pList; NULL != p; p = p->pNext) {
        Check(strnlen(p->filename, sizeof(p->filename)) < sizeof(p->filename), "a listed file name is terminated");
        --iListed;
    }
    Check(0 == iListed, "the count is the length of the list");
    VESKBandwidthStatusListFree(&pList);
    return 0;
}
