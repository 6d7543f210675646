// vbw-sandbox: runs a program inside the private sandbox with the fixture
// accounts and a network of its own that has only loopback.  Usage: vbw-sandbox [--passwd FILE] [--group FILE] [--]
// PROGRAM [ARGS...]
#include "sandbox.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

namespace {

bool ReadText(const char *path, std::string *text)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    std::ostringstream buffer;
    buffer << in.rdbuf();
    *text = buffer.str();
    return true;
}

}  // namespace

int main(int argc, char **argv)
{
    const char *passwd = VBW_FIXTURE_PASSWD;
    const char *group = VBW_FIXTURE_GROUP;
    int i = 1;
    for (; i < argc; ++i) {
        if (std::strcmp(argv[i], "--passwd") == 0 && i + 1 < argc) {
            passwd = argv[++i];
        } else if (std::strcmp(argv[i], "--group") == 0 && i + 1 < argc) {
            group = argv[++i];
        } else if (std::strcmp(argv[i], "--") == 0) {
            ++i;
            break;
        } else {
            break;
        }
    }
    if (i >= argc) {
        std::fprintf(stderr, "usage: vbw-sandbox [--passwd FILE] [--group FILE] [--] PROGRAM [ARGS...]\n");
        return 2;
    }
    vbw::SandboxOptions options;
    if (!ReadText(passwd, &options.passwd) || !ReadText(group, &options.group)) {
        std::fprintf(stderr, "vbw-sandbox: cannot read the fixture accounts %s, %s\n", passwd, group);
        return 2;
    }
    std::string error;
    if (!vbw::EnterSandbox(options, &error)) {
        std::fprintf(stderr, "vbw-sandbox: %s\n", error.c_str());
        return 125;
    }
    execvp(argv[i], argv + i);
    std::fprintf(stderr, "vbw-sandbox: cannot run %s: %s\n", argv[i], std::strerror(errno));
    return 127;
}
