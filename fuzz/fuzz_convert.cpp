// The record conversions on any input: pairs of text into each kind of
// record, and records of any bytes (text fields without their terminating
// NUL included) into pairs and into the dumps.  Converting a record to text
// and back settles after one round (a text field without its NUL comes back
// cut to its size less one): from then on the text form is a fixed point.
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <string>

#include "support.h"
#include "veskbandwidth.h"

using namespace vesk_fuzz;

namespace {

// "key=value" lines into a hash (a line without '=' is a key with an empty value).
VLIBC_SZHASH *PairsOf(const uint8_t *data, size_t size)
{
    VLIBC_SZHASH *pHash = VLIBCSzHashAlloc(16);
    std::string text((const char *)data, size);
    text.erase(std::remove(text.begin(), text.end(), '\0'), text.end());
    for (size_t start = 0; start < text.size();) {
        size_t end = std::min(text.find('\n', start), text.size());
        std::string line = text.substr(start, end - start);
        size_t equals = line.find('=');
        VLIBCSzHashSetValue(&pHash, line.substr(0, equals).c_str(),
                            std::string::npos == equals ? "" : line.substr(equals + 1).c_str());
        start = end + 1;
    }
    return pHash;
}

// One kind of record with its two conversions and its dump.
template <typename Record>
struct Kind {
    int (*ToHash)(VLIBC_SZHASH **, const Record *);
    int (*FromHash)(Record *, const VLIBC_SZHASH *);
    int (*Dump)(FILE *, const Record *);
};

// The record's text, read back into a copy of the record: 0 when both
// conversions succeed.
template <typename Record>
int RoundTrip(const Kind<Record> &kind, Record *pRecord, VLIBC_SZHASH **ppText)
{
    if (0 != kind.ToHash(ppText, pRecord)) {
        return -1;
    }
    return kind.FromHash(pRecord, *ppText);
}

// After one round trip, a second one gives the same text.
template <typename Record>
void CheckFixedPoint(const Kind<Record> &kind, const Record &record)
{
    VLIBC_SZHASH *pFirst = VLIBCSzHashAlloc(16);
    VLIBC_SZHASH *pSecond = VLIBCSzHashAlloc(16);
    Record again = record;
    Check(0 == RoundTrip(kind, &again, &pFirst), "a record converts to text and back");
    Check(0 == RoundTrip(kind, &again, &pFirst), "a record read back converts to text and back");
    Check(0 == RoundTrip(kind, &again, &pSecond), "so does the record read back again");
    Check(HashText(pFirst) == HashText(pSecond), "a record's text form is a fixed point");
    VLIBCSzHashFree(pFirst);
    VLIBCSzHashFree(pSecond);
}

// Fills a record of junk from the pairs, then from raw bytes, and checks
// both; the dump of the raw record must not fail for lack of a terminator.
template <typename Record>
void Exercise(const Kind<Record> &kind, const VLIBC_SZHASH *pPairs, const uint8_t *data, size_t size, FILE *sink)
{
    Record record;
    memset(&record, 0xA5, sizeof(record));
    if (0 == kind.FromHash(&record, pPairs)) {
        CheckFixedPoint(kind, record);
    }
    memset(&record, 0, sizeof(record));
    memcpy(&record, data, std::min(size, sizeof(record)));
    CheckFixedPoint(kind, record);
    kind.Dump(sink, &record);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***argv)
{
    RequireSandbox((*argv)[0]);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static FILE *sink = fopen("/dev/null", "w");
    VLIBC_SZHASH *pPairs = PairsOf(data, size);
    Exercise<VESK_BANDWIDTH_STATUS>({VESKBandwidthInitHashFromStatus, VESKBandwidthInitStatusFromHash,
                                     VESKBandwidthStatusDump},
                                    pPairs, data, size, sink);
    Exercise<VESK_BANDWIDTH_CONF>({VESKBandwidthInitHashFromConf, VESKBandwidthInitConfFromHash, VESKBandwidthConfDump}, pPairs,
                                  data, size, sink);
    Exercise<VESK_BANDWIDTH_GLOBAL_CONF>({VESKBandwidthInitHashFromGlobalConf, VESKBandwidthInitGlobalConfFromHash,
                                          VESKBandwidthGlobalConfDump},
                                         pPairs, data, size, sink);
    VLIBCSzHashFree(pPairs);
    return 0;
}
