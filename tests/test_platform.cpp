// The platform's processes: running a program and reading a pid file.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "vbw_throttle_fixture.h"
#include "vesk_system.h"

namespace {

class PlatformTest : public vbw::SandboxTest {};

// The child's output never reaches the caller's standard output or error.
TEST_F(PlatformTest, ExecPassesArgumentsUpToTheFirstNullAndSilencesTheChild)
{
    fflush(stdout);
    fflush(stderr);
    int saved[2] = {dup(1), dup(2)};
    int out = open("/tmp/out", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(out, 1);
    dup2(out, 2);
    int status = VLIBCExec("/bin/sh", "-c", "echo out; echo err >&2; exit 3", nullptr, nullptr);
    dup2(saved[0], 1);
    dup2(saved[1], 2);
    for (int fd : {out, saved[0], saved[1]}) {
        close(fd);
    }
    EXPECT_EQ(3, status);
    EXPECT_EQ("", vbw::ReadFile("/tmp/out"));

    EXPECT_EQ(0, VLIBCExec("/bin/sh", "-c", "printf '%s|' \"$0\" \"$#\" > /tmp/args", "zero", nullptr));
    EXPECT_EQ("zero|0|", vbw::ReadFile("/tmp/args"));
    EXPECT_EQ(0, VLIBCExec("/bin/sh", "-c", "printf '%s|' \"$0\" \"$#\" > /tmp/args", nullptr, "ignored"));
    EXPECT_EQ("/bin/sh|0|", vbw::ReadFile("/tmp/args"));  // argv[0] is the path
    EXPECT_EQ(0, VLIBCExec("/bin/sh", "-c", "[ \"$0\" = '$HOME' ] && [ \"$1\" = '*' ]", "$HOME", "*"));  // no shell
    EXPECT_EQ(127, VLIBCExec("/no/such/program", nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(-1, VLIBCExec("/bin/sh", "-c", "kill -9 $$", nullptr, nullptr));
}

TEST_F(PlatformTest, ReadPidFileAcceptsOnlyAPositiveNumber)
{
    const char *szPath = "/run/test.pid";
    for (const auto &[text, pid] : std::vector<std::pair<std::string, int>>{{"  4321\n", 4321},
                                                                            {"17", 17},
                                                                            {"", -1},
                                                                            {"\n", -1},
                                                                            {"0\n", -1},
                                                                            {"-5\n", -1},
                                                                            {"12a\n", -1},
                                                                            {"1 2\n", -1},
                                                                            {"99999999999\n", -1},
                                                                            {"+7\n", -1},
                                                                            {std::string(100, ' ') + "5\n", -1}}) {
        vbw::WriteFile(szPath, text);
        EXPECT_EQ(pid, VLIBCReadPidFile(szPath)) << text;
        EXPECT_TRUE(pid > 0 || BW_ERR_BAD_VALUE == VLIBCErrGet()) << text;
    }
    EXPECT_EQ(-1, VLIBCReadPidFile("/run/missing.pid"));
    EXPECT_EQ(BW_ERR_FILE_OPEN, VLIBCErrGet());
}

}  // namespace
