// The section-file reader on any bytes: the header lines as the syntax defines
// them, and nothing else, make the sections listed; each can be read; the
// status enumeration lists at most one record per section.
#include <string.h>

#include <set>
#include <string>

#include "support.h"
#include "veskbandwidth.h"
#include "vesk_file.h"

using namespace vesk_fuzz;

extern "C" int LLVMFuzzerInitialize(int *, char ***argv)
{
    return RequireSandbox(argv);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string path = ScratchFile("user-1026", data, size);
    std::set<std::string> headers;
    for (size_t start = 0; start < size;) {
        const char *line = (const char *)data + start;
        const char *end = (const char *)memchr(line, '\n', size - start);
        size_t length = end == nullptr ? size - start : (size_t)(end - line) + 1;
        // A header: '[' first and ']' last, a name between them without ']' or NUL.
        std::string body(line, end == nullptr ? length : length - 1);
        bool blHeader = body.size() >= 2 && body.front() == '[' && body.back() == ']' &&
                        body.find_first_of(std::string("]\0", 2), 1) == body.size() - 1;
        Check((VLIBCIFileIsSection(line, length) != 0) == blHeader, "a line is a header as the syntax says");
        if (blHeader) {
            headers.insert(body.substr(1, body.size() - 2));
        }
        start += length;
    }
    VLIBC_SZLIST *pNames = nullptr;
    int iSections = VLIBCFileEnumSection(path.c_str(), &pNames);
    std::set<std::string> listed;
    for (int i = 0; i < iSections; ++i) {
        VLIBC_SZHASH *pHash = nullptr;
        listed.insert(VLIBCSzListGet(pNames, i));
        Check(VLIBCFileGetSection(path.c_str(), VLIBCSzListGet(pNames, i), &pHash) == 1, "a listed section reads");
        VLIBCSzHashFree(pHash);
    }
    VLIBCSzListFree(pNames);
    Check(iSections >= 0 && listed == headers, "the header lines, and nothing else, make the sections");

    VESK_BANDWIDTH_STATUS *pList = nullptr;
    int iListed = VESKBandwidthIStatusGetAll(path.c_str(), VESK_BW_PROTOCOL_ALL, VESK_BW_TRANSFER_ALL, &pList,
                                             size > 0 && (data[0] & 1));
    Check(iListed >= 0 && iListed <= iSections, "the enumeration lists at most the sections of the file");
    for (VESK_BANDWIDTH_STATUS *p = pList; p != nullptr; p = p->pNext) {
        Check(strnlen(p->filename, sizeof(p->filename)) < sizeof(p->filename), "a listed file name is terminated");
        --iListed;
    }
    Check(iListed == 0, "the count is the length of the list");
    VESKBandwidthStatusListFree(&pList);
    return 0;
}
