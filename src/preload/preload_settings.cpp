// The preload library's settings: the launcher's environment, the program's
// name, and the pass-through accounts.
#include "preload_settings.h"

#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace preload {
namespace {

struct Program {
    const char *name;
    int protocol;
    Role role;  // kUnknown: learned from its first connection
};

// sshd and sftp-server move files for SFTP, which an appliance offers as part
// of its FTP service: they are held to the ftp limits.
constexpr Program kPrograms[] = {
    {"rsync", VESK_BW_PROTOCOL_RSYNC, Role::kUnknown},    {"vsftpd", VESK_BW_PROTOCOL_FTP, Role::kServer},
    {"proftpd", VESK_BW_PROTOCOL_FTP, Role::kServer},     {"pure-ftpd", VESK_BW_PROTOCOL_FTP, Role::kServer},
    {"in.ftpd", VESK_BW_PROTOCOL_FTP, Role::kServer},     {"sshd", VESK_BW_PROTOCOL_FTP, Role::kServer},
    {"sftp-server", VESK_BW_PROTOCOL_FTP, Role::kServer},
};

constexpr uid_t kFirstUserUid = 1000;  // Debian's system accounts lie below
constexpr uid_t kNobodyUid = 65534;
constexpr size_t kMaxPassThrough = 256;

const Program *FindProgram(const std::string &program)
{
    for (const Program &entry : kPrograms) {
        if (program == entry.name) {
            return &entry;
        }
    }
    return nullptr;
}

bool ParseUid(const char *text, uid_t *uid)
{
    if (text == nullptr || *text < '0' || *text > '9') {
        return false;
    }
    char *end = nullptr;
    errno = 0;
    unsigned long value = strtoul(text, &end, 10);
    if (errno != 0 || *end != '\0' || value >= UID_ERR) {
        return false;
    }
    *uid = static_cast<uid_t>(value);
    return true;
}

int ProtocolOfName(const char *name)
{
    if (name == nullptr || *name == '\0') {
        return 0;
    }
    int protocol = VESKBandwidthEnumToValue(VESK_BW_PROTOCOL_TYPE_NAMES, name);
    return protocol > 0 && protocol != VESK_BW_PROTOCOL_ALL ? protocol : 0;
}

Role RoleOfName(const char *name)
{
    if (name != nullptr && strcmp(name, "client") == 0) {
        return Role::kClient;
    }
    if (name != nullptr && strcmp(name, "server") == 0) {
        return Role::kServer;
    }
    return Role::kUnknown;
}

// The file is the administrator's: it counts only when root owns it, nobody
// else may write it, and it is not a link.
FILE *OpenPassThroughFile()
{
    int fd = open(kPassThroughFile, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        return nullptr;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != 0 || (st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        close(fd);
        return nullptr;
    }
    FILE *fp = fdopen(fd, "r");
    if (fp == nullptr) {
        close(fd);
    }
    return fp;
}

// One line: a uid or an account name; blank lines and "#" comments are skipped.
bool UidOfLine(char *line, uid_t *uid)
{
    line[strcspn(line, "#\r\n")] = '\0';
    char *start = line + strspn(line, " \t");
    char *end = start + strlen(start);
    while (end > start && (end[-1] == ' ' || end[-1] == '\t')) {
        *--end = '\0';
    }
    if (*start == '\0') {
        return false;
    }
    if (ParseUid(start, uid)) {
        return true;
    }
    struct passwd *account = getpwnam(start);
    if (account == nullptr) {
        return false;
    }
    *uid = account->pw_uid;
    return true;
}

std::vector<uid_t> ReadPassThrough()
{
    std::vector<uid_t> uids;
    FILE *fp = OpenPassThroughFile();
    if (fp == nullptr) {
        return uids;
    }
    char *line = nullptr;
    size_t size = 0;
    while (getline(&line, &size, fp) >= 0 && uids.size() < kMaxPassThrough) {
        uid_t uid;
        if (UidOfLine(line, &uid)) {
            uids.push_back(uid);
        }
    }
    free(line);
    fclose(fp);
    if (uids.empty()) {
        uids.push_back(0);  // a file that names nobody: only root passes
    }
    return uids;
}

}  // namespace

int ProtocolOfProgram(const std::string &program)
{
    const Program *entry = FindProgram(program);
    return entry != nullptr ? entry->protocol : 0;
}

Settings ReadSettings()
{
    Settings settings;
    settings.program = program_invocation_short_name;
    const Program *entry = FindProgram(settings.program);
    const char *protocol = getenv(kProtocolVariable);
    settings.protocol = protocol != nullptr ? ProtocolOfName(protocol) : ProtocolOfProgram(settings.program);
    settings.role = RoleOfName(getenv(kRoleVariable));
    settings.programRole = entry != nullptr && entry->role == Role::kServer ? Role::kServer : Role::kClient;
    if (!ParseUid(getenv(kUserVariable), &settings.fixedUser)) {
        settings.fixedUser = UID_ERR;
    }
    settings.passThrough = ReadPassThrough();
    return settings;
}

bool PassesThrough(const Settings &settings, uid_t euid)
{
    if (settings.fixedUser != UID_ERR) {
        return false;
    }
    if (euid == 0) {
        return true;
    }
    if (settings.passThrough.empty()) {
        return euid < kFirstUserUid || euid == kNobodyUid;
    }
    for (uid_t uid : settings.passThrough) {
        if (uid == euid) {
            return true;
        }
    }
    return false;
}

}  // namespace preload
