#include <sys/wait.h>
#include <unistd.h>

#include "sim_test.h"

namespace qzsim {

namespace {

// A listing of the machine paths that the sandbox covers.
std::string machinePaths() {
  std::string out;
  for (const char* dir : {"/usr/sbin", "/usr/lib", "/usr/bin", "/dev", "/sys/block"}) {
    auto names = listDir(dir);
    std::sort(names.begin(), names.end());
    out += std::string(dir) + ":" + join(names, ",") + "\n";
  }
  return out;
}

}  // namespace

class SandboxTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    before = machinePaths();
    adminOk({"host", "add", "A"});
    adminOk({"host", "add", "B", "--no-dmp", "--no-vset", "--no-cds"});
    adminOk({"host", "add", "X", "--not-installed"});
    addDisks(2, "A", 1);
    makeGroup("A", "dg1", {"qzarr0_0"});
    ok("A", "qzassist -g dg1 make vol1 1m");
  }
  void TearDown() override {
    EXPECT_EQ(machinePaths(), before);
    SimTest::TearDown();
  }
  CommandResult inHost(const std::string& host, const std::string& script) {
    return admin({"host", host, "--", "sh", "-c", script});
  }
  std::string before;
};

TEST_F(SandboxTest, HostSeesItsToolsDevicesAndFolders) {
  CommandResult r =
      inHost("A",
             "ls /usr/sbin/qzdg /usr/sbin/qzdmpadm /usr/sbin/qzvset /bin/rpm /sbin/parted "
             "/usr/lib/qzvm/bin/qzdisksetup /usr/lib/qzvm/bin/qzcdsconvert /dev/qz/dsk/dg1/vol1 "
             "/dev/qz/rdsk/dg1/vol1 /sys/block/sdb/device/delete && "
             "echo host=$QZSIM_HOST cfg=$QZFI_CONFIG_DIR log=$QZFI_LOG_DIR && "
             "/usr/sbin/qzdg  list && /bin/rpm -qa");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(
      r.out.find("host=A cfg=" + root + "/hosts/A/qzfi_config log=" + root + "/hosts/A/qzfi_log"),
      std::string::npos);
  EXPECT_NE(r.out.find("dg1"), std::string::npos);
  EXPECT_NE(r.out.find("ZOLKqzvm-"), std::string::npos);
}

TEST_F(SandboxTest, OptionalToolsFollowTheHost) {
  CommandResult r =
      inHost("B",
             "test -x /usr/sbin/qzdg && test ! -e /usr/sbin/qzdmpadm && "
             "test ! -e /usr/sbin/qzvset && test ! -e /usr/lib/qzvm/bin/qzcdsconvert && "
             "test -x /usr/lib/qzvm/bin/qzdisksetup && test ! -e /dev/qz/dsk/dg1");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  r = inHost("X",
             "test ! -e /usr/sbin/qzdg && test -x /bin/rpm && test -x /sbin/parted && "
             "! /bin/rpm -qa | grep ZOLKqzvm");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

TEST_F(SandboxTest, WritingDeleteDetachesTheDisk) {
  ok("A", "qzdisk scandisks");
  ASSERT_EQ(lines(ok("A", "qzdisk list")).size(), 3u);
  CommandResult r = inHost("A", "echo 1 > /sys/block/sdc/device/delete");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(lines(ok("A", "qzdisk list")).size(), 2u);
  std::string text;
  EXPECT_FALSE(readFile(root + "/hosts/A/sys_block/sdc/device/delete", &text));
}

TEST_F(SandboxTest, TheHostsCommandKeepsItsOptions) {
  CommandResult r = admin({"host", "A", "--", "echo", "--record", "--raw"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "--record --raw\n");
}

TEST_F(SandboxTest, UnknownHostIsAClearError) {
  CommandResult r = inHost("Q", "true");
  EXPECT_NE(r.status, 0);
  EXPECT_NE(r.err.find("host Q"), std::string::npos) << r.err;
}

// The library: one process acts as host A, then as host B, in its own
// namespace (a child here, so that this test process stays outside).
TEST_F(SandboxTest, LibrarySwitchesHostsInOneProcess) {
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    std::string err;
    int code = 0;
    if (!enterNamespace(&err) || !actAsHost(root, "A", &err))
      code = 10;
    else if (access("/usr/sbin/qzdmpadm", X_OK) != 0)
      code = 11;
    else if (runCommand({"/usr/sbin/qzdg", "list"}).out.find("dg1") == std::string::npos)
      code = 12;
    else if (access("/dev/qz/dsk/dg1/vol1", F_OK) != 0)
      code = 13;
    else if (!actAsHost(root, "B", &err))
      code = 14;
    else if (access("/usr/sbin/qzdmpadm", F_OK) == 0)
      code = 15;
    else if (std::string(getenv("QZSIM_HOST")) != "B")
      code = 16;
    else if (runCommand({"/usr/sbin/qzdg", "list"}).out.find("dg1") != std::string::npos)
      code = 17;
    else if (access("/dev/qz/dsk/dg1", F_OK) == 0)
      code = 18;
    leaveHost();
    if (code == 0 && access("/usr/sbin/qzdg", F_OK) == 0)
      code = 19;
    if (code)
      fprintf(stderr, "sandbox step %d: %s\n", code, err.c_str());
    _exit(code);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace qzsim
