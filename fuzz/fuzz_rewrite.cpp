// The section writer on any file, through either face: replacing or removing a
// section keeps every other line in its place; the result says whether it was
// there; a replaced one reads back with its new pairs, each on one line.
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "section/section_text.h"
#include "status/bandwidth_status_file.h"
#include "support.h"
#include "veskbandwidth.h"
#include "vesk_file.h"

using namespace vesk_fuzz;

namespace {

// Every line outside the sections named `name` but the comments, in order;
// then the comments, which a changed section keeps, so that they end the
// section before it when it is removed.
std::vector<std::string> Untouched(const std::string &content, const std::string &name)
{
    vesk_section::SectionFile file(content);
    std::vector<std::string> lines, comments;
    std::string_view section;
    for (const vesk_section::Line &line : file.Lines()) {
        std::string_view text = std::string_view(content).substr(line.off, line.cb);
        if (line.kind == vesk_section::LineKind::Header) {
            vesk_section::HeaderName(text, &section);
        }
        if (line.kind == vesk_section::LineKind::Comment) {
            comments.push_back(std::string(text.substr(0, text.find('\n'))));
        } else if (section != name) {
            lines.emplace_back(text);
        }
    }
    lines.insert(lines.end(), comments.begin(), comments.end());
    return lines;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***argv)
{
    return RequireSandbox(argv);
}

// Input: an operation byte, a section pick byte, then the file's bytes.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2) {
        return 0;
    }
    const std::string before((const char *)data + 2, size - 2), path = ScratchFile("user-1026", data + 2, size - 2);
    vesk_section::SectionFile parsed(before);
    std::string name = "4321-2";
    if (!parsed.Distinct().empty() && data[1] < 0x80) {
        name = std::string(parsed.Distinct()[data[1] % parsed.Distinct().size()]->name);
    }
    // The status face heals a file of more sections than it reads: not this invariant.
    const bool blReplace = data[0] & 1, blPresent = parsed.Find(name) != nullptr;
    const bool blStatus = (data[0] & 2) && parsed.Sections().size() <= vesk_status::kMaxSections;
    VLIBC_SZHASH *pHash = VLIBCSzHashAlloc(4);
    VLIBCSzHashSetValue(&pHash, "pid", "4321");
    VLIBCSzHashSetValue(&pHash, "filename", "a\n[4321-2]\nactive=0");
    int iResult = blReplace ? (blStatus ? VESKBandwidthStatusSetSection(path.c_str(), name.c_str(), pHash)
                                        : VLIBCFileSetSection(path.c_str(), name.c_str(), nullptr, pHash, 0))
                            : (blStatus ? VESKBandwidthStatusRemoveSection(path.c_str(), name.c_str())
                                        : VLIBCFileRemoveSection(path.c_str(), name.c_str()));
    Check(iResult == (blPresent ? 1 : 0), "the result tells whether the section was there");

    std::ifstream in(path, std::ios::binary);
    const std::string after((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    Check(Untouched(after, name) == Untouched(before, name), "the other bytes stay");
    VLIBC_SZHASH *pBack = nullptr;
    int iFound = VLIBCFileGetSection(path.c_str(), name.c_str(), &pBack);
    Check(iFound == (blReplace && blPresent ? 1 : 0), "a replaced section is there, a removed one is not");
    Check(iFound != 1 ||
              (VLIBCSzHashCount(pBack) == 2 && std::string(VLIBCSzHashValueAt(pBack, 1)) == "a [4321-2] active=0"),
          "the section reads back with its new pairs, each on one line");
    VLIBCSzHashFree(pBack);
    VLIBCSzHashFree(pHash);
    return 0;
}
