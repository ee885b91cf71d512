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
  ok("A", "qzdisk rm qzarr0_1");
  EXPECT_EQ(lines(ok("A", "qzdisk list")).size(), 2u);
  std::string text;
  EXPECT_FALSE(readFile(root + "/hosts/A/sys_block/sdc/device/delete", &text));
}

TEST_F(SandboxTest, DeviceNodesHaveOwnersThatStatShowsAndChownChanges) {
  CommandResult r = inHost("A",
                           "stat -L -c '%n %u %g %a' /dev/sdb /dev/sdc /dev/qz/dmp/qzarr0_0s3 "
                           "/dev/qz/rdmp/qzarr0_1 /dev/qz/dsk/dg1/vol1 /dev/qz/rdsk/dg1/vol1 && "
                           "chown 1001:1002 /dev/sdb /dev/qz/rdsk/dg1/vol1 && "
                           "chmod 640 /dev/qz/rdmp/qzarr0_1");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "/dev/sdb 0 0 660\n/dev/sdc 0 0 660\n/dev/qz/dmp/qzarr0_0s3 0 0 660\n"
            "/dev/qz/rdmp/qzarr0_1 0 0 660\n/dev/qz/dsk/dg1/vol1 0 0 600\n"
            "/dev/qz/rdsk/dg1/vol1 0 0 600\n");
  auto rows = lines(adminOk({"node", "list", "--host", "A", "/dev/qz/rdmp/qzarr0_1",
                             "/dev/qz/rdsk/dg1/vol1", "/dev/sdb"}));
  ASSERT_EQ(rows.size(), 4u);
  EXPECT_EQ(splitBlanks(rows[1]),
            (std::vector<std::string>{"/dev/qz/rdmp/qzarr0_1", "0", "0", "0640"}));
  EXPECT_EQ(splitBlanks(rows[2]),
            (std::vector<std::string>{"/dev/qz/rdsk/dg1/vol1", "1001", "1002", "0600"}));
  EXPECT_EQ(splitBlanks(rows[3]), (std::vector<std::string>{"/dev/sdb", "1001", "1002", "0660"}));
  // The next sandbox of the host, after a re-import, shows the same.
  ok("A", "qzdg deport dg1");
  ok("A", "qzdg import dg1");
  r = inHost("A", "stat -L -c '%u %g' /dev/sdb /dev/qz/rdsk/dg1/vol1");
  EXPECT_EQ(r.out, "1001 1002\n1001 1002\n") << r.err;
  // Each host sees its own disks only.
  r = inHost("B", "test ! -e /dev/sdb && test ! -e /dev/qz/dmp/qzarr0_0");
  EXPECT_EQ(r.status, 0) << r.err;
}

TEST_F(SandboxTest, RestOfDevKeepsWorking) {
  CommandResult r = inHost("A",
                           "echo x > /dev/null && head -c 8 /dev/zero | wc -c && "
                           "head -c 8 /dev/urandom | wc -c && test -c /dev/random && "
                           "test -d /dev/pts && test -d /dev/shm && echo y > /dev/shm/qzsim-$$ && "
                           "rm /dev/shm/qzsim-$$ && ls /dev/fd/0 && test -e /dev/stdout");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "8\n8\n/dev/fd/0\n");
}

TEST_F(SandboxTest, TheHostsCommandKeepsItsOptions) {
  CommandResult r = admin({"host", "A", "--", "echo", "--record", "--raw"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "--record --raw\n");
}

// Each host has its own name and machine id, the same from run to run; a
// reinstalled host has a new machine id and keeps its name.
TEST_F(SandboxTest, EachHostHasItsOwnNameAndMachineId) {
  auto identity = [&](const std::string& host) {
    CommandResult r = inHost(host, "hostname && cat /etc/machine-id");
    EXPECT_EQ(r.status, 0) << r.err;
    return r.out;
  };
  std::string machine;
  readFile("/etc/machine-id", &machine);
  const std::string a = identity("A"), b = identity("B");
  ASSERT_EQ(a.size(), 2 + 33u) << a;
  EXPECT_EQ(a.substr(0, 2), "A\n");
  EXPECT_EQ(b.substr(0, 2), "B\n");
  const std::string id = a.substr(2, 32);
  EXPECT_EQ(id.find_first_not_of("0123456789abcdef"), std::string::npos) << id;
  EXPECT_NE(a.substr(2), b.substr(2));
  EXPECT_NE(a.substr(2), machine);
  EXPECT_EQ(identity("A"), a);
  EXPECT_EQ(identity("B"), b);
  char name[256] = {};
  gethostname(name, sizeof name - 1);
  EXPECT_NE(std::string(name), "A");

  CommandResult re = admin({"host", "reinstall", "A"});
  ASSERT_EQ(re.status, 0) << re.err;
  const std::string again = identity("A");
  EXPECT_EQ(again.substr(0, 2), "A\n");
  EXPECT_NE(again, a);
  EXPECT_EQ(re.out, "A machine-id " + again.substr(2));
  EXPECT_EQ(identity("B"), b);
  EXPECT_NE(admin({"host", "reinstall", "Q"}).status, 0);
}

// A host of a simulation made before hosts had machine ids gets one the
// first time it runs something, and keeps it.
TEST_F(SandboxTest, AHostWithoutAMachineIdGetsOneOnce) {
  const std::string file = root + "/hosts/A/machine-id";
  ASSERT_EQ(unlink(file.c_str()), 0);
  CommandResult first = inHost("A", "cat /etc/machine-id");
  ASSERT_EQ(first.status, 0) << first.err;
  EXPECT_EQ(first.out.size(), 33u) << first.out;
  std::string kept;
  ASSERT_TRUE(readFile(file, &kept));
  EXPECT_EQ(kept, first.out);
  EXPECT_EQ(inHost("A", "cat /etc/machine-id").out, first.out);
}

TEST_F(SandboxTest, UnknownHostIsAClearError) {
  CommandResult r = inHost("Q", "true");
  EXPECT_NE(r.status, 0);
  EXPECT_NE(r.err.find("host Q"), std::string::npos) << r.err;
}

// The library: one process acts as host A, then as host B, in its own
// namespace (a child here, so that this test process stays outside).
TEST_F(SandboxTest, LibrarySwitchesHostsInOneProcess) {
  EXPECT_EQ(inChild([&](std::string* err) {
              if (!enterNamespace(err) || !actAsHost(root, "A", err))
                return 10;
              if (access("/usr/sbin/qzdmpadm", X_OK) != 0)
                return 11;
              if (runCommand({"/usr/sbin/qzdg", "list"}).out.find("dg1") == std::string::npos)
                return 12;
              if (access("/dev/qz/dsk/dg1/vol1", F_OK) != 0)
                return 13;
              if (!actAsHost(root, "B", err))
                return 14;
              if (access("/usr/sbin/qzdmpadm", F_OK) == 0)
                return 15;
              if (std::string(getenv("QZSIM_HOST")) != "B")
                return 16;
              if (runCommand({"/usr/sbin/qzdg", "list"}).out.find("dg1") != std::string::npos)
                return 17;
              if (access("/dev/qz/dsk/dg1", F_OK) == 0)
                return 18;
              leaveHost();
              return access("/usr/sbin/qzdg", F_OK) == 0 ? 19 : 0;
            }),
            0);
}

}  // namespace qzsim

namespace qzsim {

// A folder outside the simulation root that links planted in a sandbox
// point to, with what it holds.
class PlantedLinkTest : public SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    char tmpl[] = "/tmp/qzsim-bait-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    bait = tmpl;
    ASSERT_TRUE(writeFile(bait + "/keep", "kept\n"));
    ok("A", "qzdisk scandisks");
  }
  void TearDown() override {
    std::string text;
    EXPECT_TRUE(readFile(bait + "/keep", &text));
    EXPECT_EQ(text, "kept\n");
    EXPECT_EQ(listDir(bait), std::vector<std::string>{"keep"});
    removeTree(bait);
    SandboxTest::TearDown();
  }
  // Plants links with script, then runs a tool that changes the model, so
  // that the host's device nodes are made again.
  void plantThenChange(const std::string& script) {
    CommandResult r = inHost("A", script);
    ASSERT_EQ(r.status, 0) << r.err;
    ok("A", "qzvol -g dg1 stop vol1");
    ok("A", "qzvol -g dg1 start vol1");
  }
  // What kind of entry path is in the host's sandbox: "d", "f" or "l".
  std::string kindIn(const std::string& path) {
    return inHost("A", "if [ -L " + path + " ]; then echo l; elif [ -d " + path +
                           " ]; then echo d; elif [ -f " + path + " ]; then echo f; fi")
        .out;
  }
  std::string bait;
};

TEST_F(PlantedLinkTest, GroupFolderLinkIsReplacedByAFolder) {
  plantThenChange("rm -r /dev/qz/dsk/dg1 && ln -s " + bait + " /dev/qz/dsk/dg1 && ln -s " + bait +
                  " /dev/qz/rdsk/dg9");
  EXPECT_EQ(kindIn("/dev/qz/dsk/dg1"), "d\n");
  EXPECT_EQ(kindIn("/dev/qz/dsk/dg1/vol1"), "f\n");
  EXPECT_EQ(kindIn("/dev/qz/rdsk/dg9"), "");
}

TEST_F(PlantedLinkTest, NodeFileLinksAreReplacedByFiles) {
  plantThenChange(
      "for n in dsk/dg1/vol1 rdsk/dg1/vol1 dmp/qzarr0_0 rdmp/qzarr0_1; do "
      "rm /dev/qz/$n && ln -s " +
      bait + "/keep /dev/qz/$n || exit 1; done; ln -s " + bait +
      "/keep /dev/qz/dmp/stale && rm /dev/.qzsim-os/sdb && ln -s " + bait +
      "/keep /dev/.qzsim-os/sdb");
  for (const char* node : {"/dev/qz/dsk/dg1/vol1", "/dev/qz/rdsk/dg1/vol1", "/dev/qz/dmp/qzarr0_0",
                           "/dev/qz/rdmp/qzarr0_1", "/dev/.qzsim-os/sdb"})
    EXPECT_EQ(kindIn(node), "f\n") << node;
  EXPECT_EQ(kindIn("/dev/qz/dmp/stale"), "");
}

TEST_F(PlantedLinkTest, DmpAndRdmpFolderLinksAreReplacedByFolders) {
  plantThenChange("rm -r /dev/qz/dmp /dev/qz/rdmp && ln -s " + bait + " /dev/qz/dmp && ln -s " +
                  bait + " /dev/qz/rdmp");
  EXPECT_EQ(kindIn("/dev/qz/dmp"), "d\n");
  EXPECT_EQ(kindIn("/dev/qz/rdmp/qzarr0_0"), "f\n");
}

// The served /sys/block makes no links, and its delete files are its own.
TEST_F(PlantedLinkTest, SysBlockRefusesLinks) {
  CommandResult r = inHost("A", "ln -s " + bait +
                                    "/keep /sys/block/sdb/device/other || echo refused; "
                                    "rm /sys/block/sdb/device/delete 2>/dev/null; ln -s " +
                                    bait +
                                    "/keep /sys/block/sdb/device/delete || echo refused; "
                                    "echo 1 > /sys/block/sdb/device/delete && echo deleted");
  EXPECT_EQ(r.out, "refused\nrefused\ndeleted\n") << r.err;
  EXPECT_EQ(inHost("A", "ls /sys/block").out, "sdc\n");
}

}  // namespace qzsim
