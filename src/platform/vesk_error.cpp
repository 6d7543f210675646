// Per-thread error state: the last error code with the file and line that set it.
#include "vesk_error.h"

#include <cstdio>

namespace {

thread_local int g_code = 0;
thread_local int g_line = 0;
thread_local char g_file[256] = "";

}  // namespace

void VLIBCErrSetEx(int iCode, const char *szFile, int iLine)
{
    g_code = iCode;
    g_line = iLine;
    std::snprintf(g_file, sizeof g_file, "%s", szFile != nullptr ? szFile : "");
}

int VLIBCErrGet(void)
{
    return g_code;
}

const char *VLIBCErrorGetFile(void)
{
    return g_file;
}

int VLIBCErrorGetLine(void)
{
    return g_line;
}
