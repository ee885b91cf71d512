#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

#include <cerrno>
#include <cstdio>

#include "db.h"
#include "sim.h"
#include "sim_test.h"

namespace qzsim {

// The simulated /sys/block of a sandbox: host A with two disks, the second
// with two paths.
class SysBlockTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    adminOk({"host", "add", "A"});
    addDisks(1, "A", 1);  // sdb
    addDisks(1, "A", 2);  // sdc, sdd
    ok("A", "qzdisk scandisks");
  }
  CommandResult inHost(const std::string& script) {
    return admin({"host", "A", "--", "sh", "-c", script});
  }
};

TEST_F(SysBlockTest, DeleteTakesThePathAwayAtOnce) {
  CommandResult r = inHost(
      "ls /sys/block && echo 1 > /sys/block/sdd/device/delete && echo first=$? && "
      "if (echo 1 > /sys/block/sdd/device/delete) 2>/dev/null; then echo second=written; "
      "else echo second=failed; fi && ls /sys/block && test ! -e /dev/sdd && echo gone");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "sdb\nsdc\nsdd\nfirst=0\nsecond=failed\nsdb\nsdc\ngone\n");
  // The disk keeps its other path; after the delete of the last one QzVM
  // lists it in state error until it is removed from its view.
  EXPECT_EQ(keyValue(ok("A", "qzdisk list qzarr0_1"), "numpaths:"), "1");
  r = inHost("echo 1 > /sys/block/sdc/device/delete");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(trim(adminOk({"log", "--total"})), "2");  // no tool ran for the deletes
  auto rows = lines(ok("A", "qzdisk list"));
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(splitBlanks(rows[2]),
            (std::vector<std::string>{"qzarr0_1", "auto:none", "-", "-", "error"}));
  ok("A", "qzdisk rm qzarr0_1");
  EXPECT_EQ(lines(ok("A", "qzdisk list")).size(), 2u);
  ok("A", "qzdisk scandisks");  // nothing brings it back but its paths
  EXPECT_EQ(lines(ok("A", "qzdisk list")).size(), 2u);
  EXPECT_TRUE(startsWith(adminOk({"check"}), "OK ")) << adminOk({"check"});
}

TEST_F(SysBlockTest, OnlyOneIsWrittenAndNothingIsRead) {
  CommandResult r = inHost(
      "if (echo 2 > /sys/block/sdb/device/delete) 2>/dev/null; then echo written; fi; "
      "if cat /sys/block/sdb/device/delete 2>/dev/null; then echo read; fi; "
      "if (echo x > /sys/block/sdb/other) 2>/dev/null; then echo made; fi; ls /sys/block/sdb");
  EXPECT_EQ(r.out, "device\n") << r.err;
  EXPECT_EQ(lines(ok("A", "qzdisk list")).size(), 3u);
}

// What the plug-in does in its own process: append "1" to each delete file;
// a second attempt finds nothing to open. Paths attached later show at once.
TEST_F(SysBlockTest, LibraryProcessSeesPathsComeAndGo) {
  auto append = [](const char* path) {
    FILE* f = fopen(path, "a");
    if (!f)
      return errno;
    fputs("1", f);
    return fclose(f) == 0 ? 0 : -1;
  };
  EXPECT_EQ(
      inChild([&](std::string* err) {
        if (!enterNamespace(err) || !actAsHost(root, "A", err))
          return 10;
        if (append("/sys/block/sdb/device/delete") != 0)
          return 11;
        if (append("/sys/block/sdb/device/delete") != ENOENT)
          return 12;
        if (access("/dev/sdb", F_OK) == 0)
          return 13;
        if (simAdmin(root, {"disk", "add", "--hosts", "A"}).status != 0)
          return 14;
        if (access("/sys/block/sde/device/delete", F_OK) != 0 || access("/dev/sde", F_OK) != 0)
          return 15;
        leaveHost();
        return access("/dev/sde", F_OK) == 0 ? 16 : 0;
      }),
      0);
  ok("A", "qzdisk rm qzarr0_0");  // listed in state error until removed
  EXPECT_EQ(lines(ok("A", "qzdisk list")).size(), 2u);
}

// A delete brings up to date the nodes of its disk only, and as a full
// sync would: on a host without multipathing the disk takes the name of the
// path it keeps, and a group whose disks lost every path is disabled.
TEST_F(SysBlockTest, DeleteBringsUpToDateTheNodesOfItsDisk) {
  adminOk({"host", "add", "N", "--no-dmp"});
  // "lunN NODE N=sdX,sdY": the OS names the host gives its disks.
  auto names = [](const std::string& line) {
    return splitChar(line.substr(line.find("N=") + 2), ',');
  };
  const std::vector<std::string> two = names(addDisks(1, "N", 2)[0]);
  const std::string one = names(addDisks(1, "N", 1)[0])[0];
  ASSERT_EQ(two.size(), 2u);
  makeGroup("N", "dg1", {one});
  ok("N", "qzassist -g dg1 make vol1 10m");
  const std::string dmp = root + "/hosts/N/dev_qz/dmp/";
  ASSERT_EQ(access((dmp + two[0]).c_str(), F_OK), 0);
  CommandResult r = admin({"host", "N", "--", "sh", "-c",
                           "echo 1 > /sys/block/" + two[0] +
                               "/device/delete && ls /dev/qz/dmp | "
                               "tr '\\n' ' ' && test ! -e /dev/" +
                               two[0] + " && test -e /dev/" + two[1] + " && echo linked"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, join({two[1], one, one + "s3", "linked\n"}, " ")) << r.err;
  EXPECT_EQ(access((dmp + two[1]).c_str(), F_OK), 0);
  EXPECT_EQ(access((dmp + two[0]).c_str(), F_OK), -1);
  EXPECT_TRUE(startsWith(adminOk({"check"}), "OK ")) << adminOk({"check"});
  r = admin({"host", "N", "--", "sh", "-c", "echo 1 > /sys/block/" + one + "/device/delete"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(splitBlanks(lines(ok("N", "qzdg list"))[1])[1], "disabled,cds");
  EXPECT_EQ(access((root + "/hosts/N/dev_qz/dsk/dg1/vol1").c_str(), F_OK), 0);
  EXPECT_TRUE(startsWith(adminOk({"check"}), "OK ")) << adminOk({"check"});
}

// Scans, imports, deports and removals name the disks and groups they
// change; what they leave is what a full sync would make.
TEST_F(SysBlockTest, ScanImportAndDeportKeepTheNodesWhole) {
  auto check = [&](const std::string& step) {
    std::string out = adminOk({"check"});
    EXPECT_TRUE(startsWith(out, "OK ")) << step << ": " << out;
  };
  makeGroup("A", "dg1", {"qzarr0_0", "qzarr0_1"});
  ok("A", "qzassist -g dg1 make vol1 10m");
  check("made");
  ok("A", "qzdg deport dg1");
  check("deport");
  EXPECT_EQ(access((root + "/hosts/A/dev_qz/dsk/dg1").c_str(), F_OK), -1);
  ok("A", "qzdg -n dg2 import dg1");
  check("import");
  EXPECT_EQ(access((root + "/hosts/A/dev_qz/rdsk/dg2/vol1").c_str(), F_OK), 0);
  addDisks(2, "A", 1);
  ok("A", "qzdisk scandisks device=qzarr0_2");
  check("scan of one");
  ok("A", "qzdisk scandisks");
  check("scan");
  ok("A", "qzdisk rm qzarr0_3");
  check("rm");
  ok("A", "qzdisk clearimport qzarr0_2");
  check("clearimport");
}

// A delete waits for the database's write lock; meanwhile the other paths
// are looked up and listed at once.
TEST_F(SysBlockTest, ReadersDoNotWaitBehindADelete) {
  EXPECT_EQ(
      inChild([&](std::string* err) {
        if (!enterNamespace(err) || !actAsHost(root, "A", err))
          return 10;
        Db db(dbPath(root));
        db.begin();  // as a tool run of another host would
        pid_t writer = fork();
        if (writer == 0) {
          int fd = open("/sys/block/sdb/device/delete", O_WRONLY | O_CLOEXEC);
          _exit(fd >= 0 && write(fd, "1", 1) == 1 && close(fd) == 0 ? 0 : 1);
        }
        usleep(200 * 1000);  // the delete is waiting for the lock
        auto start = std::chrono::steady_clock::now();
        struct stat st;
        if (stat("/sys/block/sdc/device/delete", &st) != 0)
          return 11;
        if (listDir("/sys/block") != std::vector<std::string>{"sdb", "sdc", "sdd"})
          return 12;
        if (std::chrono::steady_clock::now() - start > std::chrono::seconds(2))
          return 13;
        db.commit();
        int status = 0;
        if (waitpid(writer, &status, 0) != writer || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
          return 14;
        if (access("/sys/block/sdb", F_OK) == 0 || access("/dev/sdb", F_OK) == 0)
          return 15;
        leaveHost();
        return 0;
      }),
      0);
  EXPECT_TRUE(startsWith(adminOk({"check"}), "OK ")) << adminOk({"check"});
}

}  // namespace qzsim
