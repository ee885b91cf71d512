#include <unistd.h>

#include <cerrno>
#include <cstdio>

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

}  // namespace qzsim
