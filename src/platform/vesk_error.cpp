// Per-thread error state: the last error code with the file name and line
// that recorded it.
#include "vesk_error.h"

#include <cstring>

namespace {

struct ErrorState {
    int iCode;
    char szFile[256];  // a copy: the caller's text need not outlive the call
    int iLine;
};

thread_local ErrorState g_error = {0, "", 0};

}  // namespace

void VLIBCErrSetEx(int iCode, const char *szFile, int iLine)
{
    g_error.iCode = iCode;
    g_error.iLine = iLine;
    if (szFile == nullptr) {
        g_error.szFile[0] = '\0';
        return;
    }
    size_t cb = strnlen(szFile, sizeof(g_error.szFile) - 1);
    memcpy(g_error.szFile, szFile, cb);
    g_error.szFile[cb] = '\0';
}

int VLIBCErrGet(void)
{
    return g_error.iCode;
}

const char *VLIBCErrorGetFile(void)
{
    return g_error.szFile;
}

int VLIBCErrorGetLine(void)
{
    return g_error.iLine;
}
