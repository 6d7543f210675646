// The record conversions on any input: pairs of text into each kind of record,
// records of any bytes (text without its NUL) into pairs and dumps.  After one
// round to text and back, the text form is a fixed point.
#include <algorithm>
#include <string>

#include "support.h"
#include "veskbandwidth.h"

using namespace vesk_fuzz;

namespace {

// One kind of record with its two conversions and its dump.
template <typename Record>
struct Kind {
    int (*ToHash)(VLIBC_SZHASH **, const Record *);
    int (*FromHash)(Record *, const VLIBC_SZHASH *);
    int (*Dump)(FILE *, const Record *);
};

// The record's text after one round trip, and after a second one.
template <typename Record>
void CheckFixedPoint(const Kind<Record> &kind, Record record)
{
    VLIBC_SZHASH *pHash = VLIBCSzHashAlloc(16);
    std::string texts[3];
    for (std::string &text : texts) {
        Check(kind.ToHash(&pHash, &record) == 0 && kind.FromHash(&record, pHash) == 0, "to text and back");
        for (int i = 0; i < VLIBCSzHashCount(pHash); ++i) {
            text += std::string(VLIBCSzHashKeyAt(pHash, i)) + "=" + VLIBCSzHashValueAt(pHash, i) + "\n";
        }
    }
    Check(texts[1] == texts[2], "a record's text form is a fixed point");
    VLIBCSzHashFree(pHash);
}

// A record of junk filled from the pairs, and one of the raw bytes, dumped.
template <typename Record>
void Exercise(const Kind<Record> &kind, const VLIBC_SZHASH *pPairs, const uint8_t *data, size_t size)
{
    static FILE *sink = fopen("/dev/null", "w");
    Record records[2];
    memset(&records[0], 0xA5, sizeof(Record));
    memset(&records[1], 0, sizeof(Record));
    memcpy(&records[1], data, std::min(size, sizeof(Record)));
    for (Record &record : records) {
        if (&record == &records[1] || kind.FromHash(&record, pPairs) == 0) {
            CheckFixedPoint(kind, record);
        }
    }
    kind.Dump(sink, &records[1]);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***argv)
{
    return RequireSandbox(argv);
}

// Input: "key=value" lines (a line without '=' is a key with an empty value).
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    VLIBC_SZHASH *pPairs = VLIBCSzHashAlloc(16);
    std::string text((const char *)data, size);
    text.erase(std::remove(text.begin(), text.end(), '\0'), text.end());
    for (size_t start = 0, end; start < text.size(); start = end + 1) {
        end = std::min(text.find('\n', start), text.size());
        std::string line = text.substr(start, end - start);
        size_t equals = std::min(line.find('='), line.size());
        VLIBCSzHashSetValue(&pPairs, line.substr(0, equals).c_str(),
                            line.substr(std::min(equals + 1, line.size())).c_str());
    }
    Exercise<VESK_BANDWIDTH_STATUS>(
        {VESKBandwidthInitHashFromStatus, VESKBandwidthInitStatusFromHash, VESKBandwidthStatusDump}, pPairs, data,
        size);
    Exercise<VESK_BANDWIDTH_CONF>({VESKBandwidthInitHashFromConf, VESKBandwidthInitConfFromHash, VESKBandwidthConfDump},
                                  pPairs, data, size);
    Exercise<VESK_BANDWIDTH_GLOBAL_CONF>(
        {VESKBandwidthInitHashFromGlobalConf, VESKBandwidthInitGlobalConfFromHash, VESKBandwidthGlobalConfDump}, pPairs,
        data, size);
    VLIBCSzHashFree(pPairs);
    return 0;
}
