// The walk over the fresh transfers of one status file that the enumeration
// is built on, for callers that only need to look at each record once and
// not keep a list of them (the share of a limit, on every pass).  Internal to
// the library.
#ifndef BANDWIDTH_STATUS_SCAN_H
#define BANDWIDTH_STATUS_SCAN_H

#include "veskbandwidth.h"

namespace vesk_status {

// Receives each fresh record of the file that passes the filter, in file
// order, with the name of its section.  The record belongs to the scan and is
// overwritten by the next one; a result below 0 ends the scan as a failure.
class StatusVisitor {
public:
    virtual int Visit(const char *szSection, const VESK_BANDWIDTH_STATUS &status) = 0;

protected:
    ~StatusVisitor() = default;
};

// Reads the status file szStatusFile exactly as the enumeration does (stale
// sections removed afterwards, a leftover temporary file collected) and hands
// the records of protocol_type and transfer_type to `visitor`: 0, or -1.
int ScanStatusFile(const char *szStatusFile, int protocol_type, unsigned int transfer_type, StatusVisitor &visitor);

}  // namespace vesk_status

#endif
