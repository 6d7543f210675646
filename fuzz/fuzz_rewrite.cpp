// The status file writer on any file: replacing, removing or appending a
// section gives the same result and the same bytes as the platform's own
// section writer (but for the newline that the status append puts into an
// empty file), and afterwards the section reads back with its two pairs,
// the file name that tries to forge a section kept on one line.
#include <string.h>

#include <string>

#include "support.h"
#include "veskbandwidth.h"
#include "vesk_file.h"

using namespace vesk_fuzz;

namespace {

enum Operation { REPLACE, REMOVE, ADD };

// The section to change: one of the file's (chosen by `pick`) or a new one.
std::string PickSection(const std::string &path, uint8_t pick)
{
    VLIBC_SZLIST *pNames = NULL;
    int iSections = VLIBCFileEnumSection(path.c_str(), &pNames);
    std::string name = "4321-2";
    if (iSections > 0 && pick < 0x80) {
        name = VLIBCSzListGet(pNames, pick % iSections);
    }
    VLIBCSzListFree(pNames);
    return name;
}

// The pairs that a rewrite stores: a file name that tries to forge a section.
VLIBC_SZHASH *NewPairs()
{
    VLIBC_SZHASH *pHash = VLIBCSzHashAlloc(4);
    VLIBCSzHashSetValue(&pHash, "pid", "4321");
    VLIBCSzHashSetValue(&pHash, "filename", "a\n[4321-2]\nactive=0");
    return pHash;
}

int SectionCount(const std::string &path)
{
    VLIBC_SZLIST *pNames = NULL;
    int iSections = VLIBCFileEnumSection(path.c_str(), &pNames);
    VLIBCSzListFree(pNames);
    return iSections;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***argv)
{
    RequireSandbox((*argv)[0]);
    return 0;
}

// Input: an operation byte, a section pick byte, then the file's bytes.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2) {
        return 0;
    }
    const Operation operation = (Operation)(data[0] % 3);
    const std::string ours = ScratchFile("user-1026"), platform = ScratchFile("user-1027");
    const std::string before((const char *)data + 2, size - 2);
    WriteWhole(ours, data + 2, size - 2);
    WriteWhole(platform, data + 2, size - 2);
    const std::string section = PickSection(ours, data[1]);
    const int iSectionsBefore = SectionCount(ours);
    VLIBC_SZHASH *pHash = NewPairs();

    int iOurs = 0, iPlatform = 0;
    switch (operation) {
    case REPLACE:
        iOurs = VESKBandwidthStatusSetSection(ours.c_str(), section.c_str(), pHash);
        iPlatform = VLIBCFileSetSection(platform.c_str(), section.c_str(), NULL, pHash, 0);
        break;
    case REMOVE:
        iOurs = VESKBandwidthStatusRemoveSection(ours.c_str(), section.c_str());
        iPlatform = VLIBCFileRemoveSection(platform.c_str(), section.c_str());
        break;
    case ADD:
        iOurs = VESKBandwidthStatusAddSection(ours.c_str(), section.c_str(), pHash);
        iPlatform = VLIBCFileAddSection(platform.c_str(), section.c_str(), pHash, 0);
        break;
    }
    Check(iOurs == iPlatform, "both writers give the same result");
    const std::string separator = ADD == operation && 1 == iOurs && before.empty() ? "\n" : "";
    Check(ReadWhole(ours) == separator + ReadWhole(platform), "both writers leave the same bytes");
    if (0 == iOurs) {
        Check(ReadWhole(ours) == before, "a file without the section is left as it was");
    }

    VLIBC_SZHASH *pBack = VLIBCSzHashAlloc(4);
    const int iFound = VLIBCFileGetSection(ours.c_str(), section.c_str(), &pBack);
    const int iSectionsAfter = SectionCount(ours);
    switch (operation) {
    case REPLACE:
        Check(iFound == iOurs && iSectionsAfter == iSectionsBefore, "a replace forges no section");
        break;
    case REMOVE:
        Check(0 == iFound && iSectionsAfter <= iSectionsBefore - iOurs, "a removed section is gone");
        break;
    case ADD:
        Check(1 == iFound && iSectionsAfter == iSectionsBefore + iOurs, "an append adds one section");
        break;
    }
    if (1 == iOurs && REMOVE != operation) {
        VLIBC_SZHASH *pPlatform = VLIBCSzHashAlloc(4);
        VLIBCFileGetSection(platform.c_str(), section.c_str(), &pPlatform);
        Check(HashText(pBack) == HashText(pPlatform) && 2 == VLIBCSzHashCount(pBack) &&
                  std::string::npos == std::string(VLIBCSzHashValueAt(pBack, 1)).find('\n'),
              "the section reads back as the platform writes it, its value on one line");
        VLIBCSzHashFree(pPlatform);
    }
    VLIBCSzHashFree(pBack);
    VLIBCSzHashFree(pHash);
    return 0;
}
