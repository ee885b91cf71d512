// Test fixture: a fresh simulation root per test and short ways to run the
// qzsim front end and the simulated tools as a host.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "fsutil.h"
#include "qzsim/sandbox.h"
#include "text.h"

namespace qzsim {

class SimTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/qzsim-test-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    root = tmpl;
    ASSERT_EQ(simAdmin(root, {"init"}).status, 0);
  }
  void TearDown() override { removeTree(root); }

  CommandResult admin(const std::vector<std::string>& args) { return simAdmin(root, args); }
  // Runs an administration command that must succeed; returns its output.
  std::string adminOk(const std::vector<std::string>& args) {
    CommandResult r = admin(args);
    EXPECT_EQ(r.status, 0) << join(args, " ") << ": " << r.err;
    return r.out;
  }
  CommandResult tool(const std::string& host, const std::string& cmd) {
    return simTool(root, host, cmd);
  }
  // A tool run that must succeed; returns its standard output.
  std::string ok(const std::string& host, const std::string& cmd) {
    CommandResult r = tool(host, cmd);
    EXPECT_EQ(r.status, 0) << host << ": " << cmd << ": " << r.err;
    EXPECT_EQ(r.err, "") << cmd;
    return r.out;
  }
  // Adds disks seen by hosts; returns the "LUN NODE HOST=os,..." lines.
  std::vector<std::string> addDisks(int count, const std::string& hosts, int paths = 1,
                                    const std::string& size = "64m") {
    std::string out = adminOk({"disk", "add", "--count", std::to_string(count), "--hosts", hosts,
                               "--paths", std::to_string(paths), "--size", size});
    auto lines = splitChar(trim(out), '\n');
    return lines;
  }
  // A group dg on host with the given disks (QzVM names), after a scan.
  void makeGroup(const std::string& host, const std::string& dg,
                 const std::vector<std::string>& disks) {
    ok(host, "qzdisk scandisks");
    for (const auto& d : disks) ok(host, "qzdisk -f init " + d + " type=auto format=cdsdisk");
    ok(host, "qzdg init " + dg + " " + join(disks, " "));
  }
  // Host A with two 64m disks (two paths each) in group dg1 holding vol1.
  void standardLayout() {
    adminOk({"host", "add", "A"});
    adminOk({"host", "add", "B"});
    addDisks(2, "A", 2);
    makeGroup("A", "dg1", {"qzarr0_0", "qzarr0_1"});
    ok("A", "qzassist -g dg1 make vol1 40m logtype=dco");
  }
  // Runs steps in a child process, so that the namespace it may enter stays
  // its own; steps returns 0 or the number of the step that went wrong, and
  // this returns that number.
  static int inChild(const std::function<int(std::string* error)>& steps) {
    pid_t pid = fork();
    if (pid == 0) {
      std::string error;
      int code = steps(&error);
      if (code)
        fprintf(stderr, "step %d: %s\n", code, error.c_str());
      _exit(code);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  static std::vector<std::string> lines(const std::string& out) {
    return splitChar(trim(out), '\n');
  }
  // The value of "key:" in a key listing.
  static std::string keyValue(const std::string& out, const std::string& key) {
    for (const auto& l : lines(out))
      if (startsWith(l, key))
        return trim(l.substr(key.size()));
    return "<missing>";
  }

  std::string root;
};

}  // namespace qzsim
