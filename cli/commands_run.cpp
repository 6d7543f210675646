// run: runs a command under the preload library, which paces the TCP traffic
// of an unmodified dynamically linked program through transfer sessions; with
// --check it tells instead whether the program can be throttled at all.
#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "cli.h"

namespace cli {
namespace {

constexpr char kPreloadName[] = "libveskbandwidth-preload.so";
constexpr int kRunFailed = 125;  // run itself failed, as env and timeout say
constexpr int kCannotRun = 126;  // the command cannot be run (or throttled)
constexpr int kNotFound = 127;

// Imports that move socket data past the wrappers, and why.
struct Uncovered {
    const char *name;
    bool prefix;
    const char *why;
};
constexpr Uncovered kUncovered[] = {
    {"io_uring_", true, "io_uring: the kernel moves the data, no call is made"},
    {"syscall", false, "raw system calls bypass the C library"},
    {"io_submit", false, "kernel AIO"},
    {"aio_", true, "POSIX AIO"},
    {"lio_listio", true, "POSIX AIO"},
    {"sendmmsg", false, "several messages in one call"},
    {"recvmmsg", false, "several messages in one call"},
    {"copy_file_range", false, "in-kernel copy"},
    {"vmsplice", false, "in-kernel copy"},
    {"preadv2", false, "vectored I/O with flags"},
    {"pwritev2", false, "vectored I/O with flags"},
};

struct ElfFacts {
    bool elf = false;
    std::string interpreter;           // PT_INTERP, empty when static
    int needed = 0;                    // DT_NEEDED entries
    bool go = false;                   // built by the Go toolchain
    std::vector<std::string> imports;  // undefined dynamic symbols
};

// A file mapped read-only for as long as it is looked at.
class MappedFile {
public:
    explicit MappedFile(const std::string &path)
    {
        int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat st;
        if (fd >= 0 && fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0) {
            void *map = mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
            if (map != MAP_FAILED) {
                data_ = static_cast<const char *>(map);
                size_ = static_cast<size_t>(st.st_size);
            }
        }
        if (fd >= 0) {
            close(fd);
        }
    }
    ~MappedFile()
    {
        if (data_ != nullptr) {
            munmap(const_cast<char *>(data_), size_);
        }
    }
    MappedFile(const MappedFile &) = delete;
    MappedFile &operator=(const MappedFile &) = delete;

    // A record of `count` bytes at `offset`, nullptr when the file is shorter.
    const char *At(uint64_t offset, uint64_t count) const
    {
        return data_ != nullptr && offset <= size_ && count <= size_ - offset ? data_ + offset : nullptr;
    }
    // A text that ends within the file, "" otherwise.
    std::string Text(uint64_t offset) const
    {
        const char *start = At(offset, 1);
        if (start == nullptr) {
            return "";
        }
        const char *end = static_cast<const char *>(memchr(start, '\0', size_ - offset));
        return end != nullptr ? std::string(start, end) : "";
    }

private:
    const char *data_ = nullptr;
    size_t size_ = 0;
};

template <typename Record>
bool ReadRecord(const MappedFile &file, uint64_t offset, Record *record)
{
    const char *at = file.At(offset, sizeof(Record));
    if (at != nullptr) {
        memcpy(record, at, sizeof(Record));
    }
    return at != nullptr;
}

template <typename Ehdr, typename Phdr, typename Shdr, typename Sym, typename Dyn>
void ReadElf(const MappedFile &file, ElfFacts *facts)
{
    Ehdr header;
    if (!ReadRecord(file, 0, &header)) {
        return;
    }
    facts->elf = true;
    for (unsigned i = 0; i < header.e_phnum; ++i) {
        Phdr segment;
        if (!ReadRecord(file, header.e_phoff + uint64_t{i} * header.e_phentsize, &segment)) {
            break;
        }
        if (segment.p_type == PT_INTERP) {
            facts->interpreter = file.Text(segment.p_offset);
        }
        Dyn entry;
        for (uint64_t at = segment.p_offset; segment.p_type == PT_DYNAMIC && at < segment.p_offset + segment.p_filesz &&
                                             ReadRecord(file, at, &entry) && entry.d_tag != DT_NULL;
             at += sizeof entry) {
            facts->needed += entry.d_tag == DT_NEEDED ? 1 : 0;
        }
    }
    Shdr names;
    bool haveNames = ReadRecord(file, header.e_shoff + uint64_t{header.e_shstrndx} * header.e_shentsize, &names);
    for (unsigned i = 0; i < header.e_shnum; ++i) {
        Shdr section, strings;
        if (!ReadRecord(file, header.e_shoff + uint64_t{i} * header.e_shentsize, &section)) {
            break;
        }
        std::string name = haveNames ? file.Text(names.sh_offset + section.sh_name) : "";
        facts->go = facts->go || name == ".go.buildinfo" || name == ".note.go.buildid";
        if (section.sh_type != SHT_DYNSYM || section.sh_entsize != sizeof(Sym) ||
            !ReadRecord(file, header.e_shoff + uint64_t{section.sh_link} * header.e_shentsize, &strings)) {
            continue;
        }
        Sym symbol;
        for (uint64_t at = section.sh_offset + sizeof symbol;
             at < section.sh_offset + section.sh_size && ReadRecord(file, at, &symbol); at += sizeof symbol) {
            if (symbol.st_shndx == SHN_UNDEF && symbol.st_name != 0) {
                facts->imports.push_back(file.Text(strings.sh_offset + symbol.st_name));
            }
        }
    }
}

ElfFacts InspectElf(const std::string &path)
{
    ElfFacts facts;
    MappedFile file(path);
    const char *ident = file.At(0, EI_NIDENT);
    if (ident == nullptr || memcmp(ident, ELFMAG, SELFMAG) != 0) {
        return facts;
    }
    if (ident[EI_CLASS] == ELFCLASS64) {
        ReadElf<Elf64_Ehdr, Elf64_Phdr, Elf64_Shdr, Elf64_Sym, Elf64_Dyn>(file, &facts);
    } else if (ident[EI_CLASS] == ELFCLASS32) {
        ReadElf<Elf32_Ehdr, Elf32_Phdr, Elf32_Shdr, Elf32_Sym, Elf32_Dyn>(file, &facts);
    }
    return facts;
}

// The file that execvp would run: a name with a slash as it is, else the
// first executable file of that name in PATH.
std::string FindProgram(const std::string &name)
{
    if (name.find('/') != std::string::npos) {
        return name;
    }
    const char *path = getenv("PATH");
    std::string dirs = path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin";
    for (size_t start = 0; start <= dirs.size();) {
        size_t end = dirs.find(':', start);
        end = end == std::string::npos ? dirs.size() : end;
        std::string dir = end > start ? dirs.substr(start, end - start) : ".";
        std::string candidate = dir + "/" + name;
        struct stat st;
        if (stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
        start = end + 1;
    }
    return "";
}

// The interpreter of a "#!" script, "" for anything else.
std::string ScriptInterpreter(const std::string &path)
{
    MappedFile file(path);
    std::string line = file.At(0, 2) != nullptr && memcmp(file.At(0, 2), "#!", 2) == 0 ? file.Text(0) : "";
    line = line.substr(0, line.find('\n'));
    size_t start = line.find_first_not_of(" \t", 2);
    if (start == std::string::npos) {
        return "";
    }
    return line.substr(start, line.find_first_of(" \t", start) - start);
}

const Uncovered *FindUncovered(const std::string &import)
{
    for (const Uncovered &entry : kUncovered) {
        if (entry.prefix ? import.compare(0, strlen(entry.name), entry.name) == 0 : import == entry.name) {
            return &entry;
        }
    }
    return nullptr;
}

// What can throttle the program: empty when it can be throttled, else why not.
// Notes on what it does that the preload library does not see go to `notes`.
std::string Throttleability(const std::string &path, std::vector<std::string> *notes)
{
    std::string program = path;
    std::string interpreter = ScriptInterpreter(path);
    if (!interpreter.empty()) {
        notes->push_back("a script run by " + interpreter);
        program = interpreter;
    }
    ElfFacts facts = InspectElf(program);
    if (!facts.elf) {
        return program + " is not an ELF program that can be read";
    }
    if (facts.interpreter.empty() && facts.needed == 0) {
        return program + " is statically linked: no dynamic linker loads the preload library into it";
    }
    if (facts.go) {
        notes->push_back("built with Go: its runtime makes system calls itself, past the C library");
    }
    for (const std::string &import : facts.imports) {
        const Uncovered *entry = FindUncovered(import);
        if (entry != nullptr) {
            notes->push_back("not covered: " + import + " (" + entry->why + ")");
        }
    }
    struct stat st;
    if (stat(program.c_str(), &st) == 0 && (st.st_mode & (S_ISUID | S_ISGID)) != 0) {
        notes->push_back("set-user-ID or set-group-ID: the dynamic linker ignores the preload library unless its "
                         "caller already has those ids");
    }
    return "";
}

// The preload library lies beside the bandwidth library that this tool runs
// with: the build directory, or the installed library directory.
std::string PreloadLibrary()
{
    Dl_info info;
    if (dladdr(reinterpret_cast<void *>(&VESKBandwidthSessionOpen), &info) == 0 || info.dli_fname == nullptr) {
        throw Error("cannot tell where the bandwidth library was loaded from", kRunFailed);
    }
    std::string library = info.dli_fname;
    std::string path = library.substr(0, library.rfind('/') + 1) + kPreloadName;
    if (access(path.c_str(), R_OK) != 0) {
        throw Error("the preload library " + path + " is missing", kRunFailed);
    }
    return path;
}

void SetVariable(const char *name, const std::string &value)
{
    if (setenv(name, value.c_str(), 1) != 0) {
        throw Error(std::string("cannot set ") + name + ": " + std::strerror(errno), kRunFailed);
    }
}

// The launcher's settings, in the environment that the preload library reads
// at the program's start.
void SetUpEnvironment(const Args &args)
{
    if (args.Has("user")) {
        SetVariable("VESKBANDWIDTH_USER", std::to_string(ResolveUser(args.Get("user")).id));
    }
    if (args.Has("protocol")) {
        SetVariable("VESKBANDWIDTH_PROTOCOL", ProtocolName(ParseProtocol(args.Get("protocol"), false)));
    }
    if (args.Has("role")) {
        std::string role = args.Get("role");
        if (role != "client" && role != "server") {
            throw UsageError("--role is client or server, not '" + role + "'");
        }
        SetVariable("VESKBANDWIDTH_ROLE", role);
    }
    // Libraries the caller preloads already keep their place ahead of ours
    // (a sanitizer's runtime must come first).
    const char *preloaded = getenv("LD_PRELOAD");
    std::string preload = PreloadLibrary();
    SetVariable("LD_PRELOAD",
                preloaded != nullptr && *preloaded != '\0' ? std::string(preloaded) + ":" + preload : preload);
}

// Splits the arguments into run's options and the command: the command starts
// after "--" or at the first word that is not an option.
size_t CommandStart(int argc, char **argv)
{
    for (int i = 0; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--" || arg.size() < 2 || arg[0] != '-') {
            return static_cast<size_t>(i);
        }
        bool takesValue = arg == "--user" || arg == "--protocol" || arg == "--role" || arg == "-u" || arg == "-p";
        i += takesValue ? 1 : 0;
    }
    return static_cast<size_t>(argc);
}

int Check(const std::string &path)
{
    std::vector<std::string> notes;
    std::string why = Throttleability(path, &notes);
    std::cout << path << ": " << (why.empty() ? "can be throttled" : "cannot be throttled: " + why) << '\n';
    for (const std::string &note : notes) {
        std::cout << "  " << note << '\n';
    }
    return why.empty() ? 0 : 1;
}

}  // namespace

int RunRun(int argc, char **argv)
{
    size_t start = CommandStart(argc, argv);
    std::vector<char *> command(argv + start + (start < static_cast<size_t>(argc) && strcmp(argv[start], "--") == 0),
                                argv + argc);
    try {
        Args args(static_cast<int>(start), argv,
                  {{"user", true}, {"protocol", true}, {"role", true}, {"check", false}});
        args.ExpectPositional(0, "");
        if (command.empty()) {
            throw UsageError("give the command to run after --");
        }
        std::string path = FindProgram(command[0]);
        if (path.empty()) {
            throw Error(std::string(command[0]) + ": command not found", kNotFound);
        }
        if (args.Has("check")) {
            return Check(path);
        }
        std::vector<std::string> notes;
        std::string why = Throttleability(path, &notes);
        if (!why.empty()) {
            throw Error(why + "; it would run unthrottled", kCannotRun);
        }
        for (const std::string &note : notes) {
            std::cerr << "veskbandwidth run: " << command[0] << ": " << note << '\n';
        }
        SetUpEnvironment(args);
    } catch (const UsageError &error) {
        throw Error(error.what(), kRunFailed);
    }
    command.push_back(nullptr);
    execvp(command[0], command.data());
    int failure = errno;
    throw Error(std::string("cannot run ") + command[0] + ": " + std::strerror(failure),
                failure == ENOENT ? kNotFound : kCannotRun);
}

}  // namespace cli
