// Integration surroundings: a fresh simulation per test, the test process in
// its own mount namespace acting as one simulated host after another, the
// plug-in's support object made anew on each host, and the pauses of the
// command layer counted instead of slept.
#ifndef QZVMFI_TESTS_SIM_HOST_ENV_H
#define QZVMFI_TESTS_SIM_HOST_ENV_H

#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <qzsim/sandbox.h>

#include "../host/tempdir.h"
#include "sim_commands.h"
#include "context.h"
#include "osutil.h"
#include "support/qzvm_support.h"

namespace qzvmfi_it {

class SimHostTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    if (!qzsim::enterNamespace(&error)) {
      // The test script demands the sandbox (it runs as root); elsewhere a
      // machine without namespaces skips these tests rather than failing.
      if (getenv("QZ_REQUIRE_SANDBOX") != nullptr) {
        FAIL() << "no private mount namespace: " << error;
      }
      GTEST_SKIP() << "no private mount namespace: " << error;
    }
    m_root = std::make_unique<qztest::TempDir>();
    admin({"init"});
    setQzVMSleep([this](unsigned seconds) { m_pauses.push_back(seconds); });
    arrange();
  }

  // The hosts, disks and groups of a test suite, made once the simulation is
  // there.
  virtual void arrange() {}

  void TearDown() override {
    dropSupport();
    qzsim::leaveHost();
    setQzVMSleep(nullptr);
    m_root.reset();
  }

  const std::string& root() const { return m_root->path(); }

  // "qzsim ARGS..." that must succeed; its standard output.
  std::string admin(const std::vector<std::string>& args) { return simAdminOk(root(), args); }

  // A tool run as host (outside the plug-in) that must succeed.
  std::string tool(const std::string& host, const std::string& commandLine) {
    return simToolOk(root(), host, commandLine);
  }

  std::vector<SimDisk> addDisks(int count, const std::string& hosts, int paths,
                                const std::string& size = "64m") {
    return parseDisks(admin({"disk", "add", "--count", std::to_string(count), "--hosts", hosts,
                             "--paths", std::to_string(paths), "--size", size}));
  }

  // Group dg made on host outside the plug-in: the disks (QzVM names) scanned,
  // initialised as cdsdisks and put in the group under disk-media names of
  // their own (mediaNames). Returns those names.
  Lines makeGroup(const std::string& host, const std::string& dg, const Lines& disks) {
    tool(host, "qzdisk scandisks");
    const Lines dms = mediaNames(dg, disks.size());
    std::string members;
    for (size_t i = 0; i < disks.size(); ++i) {
      tool(host, "qzdisk -f init " + disks[i] + " type=auto format=cdsdisk");
      members += " " + dms[i] + "=" + disks[i];
    }
    tool(host, "qzdg init " + dg + members);
    return dms;
  }

  // Disk-media names that differ from the disks' names: dg1d00, dg1d01, ...
  static Lines mediaNames(const std::string& dg, size_t count) {
    Lines names;
    for (size_t i = 0; i < count; ++i) {
      names.push_back(dg + "d" + (i < 10 ? "0" : "") + std::to_string(i));
    }
    return names;
  }

  std::string checksum(const std::string& host, const std::string& dg, const std::string& vol) {
    return admin({"volume", "checksum", "--host", host, dg, vol});
  }

  // The test process becomes host: its tools, /dev/qz, /sys/block and
  // framework folders; the plug-in's singletons and support object are made
  // anew there.
  void actAs(const std::string& host) {
    dropSupport();
    std::string error;
    ASSERT_TRUE(qzsim::actAsHost(root(), host, &error)) << error;
    auto log = qzvmfi_ctx::TraceLog::instance();
    log->setLevel(9);
    auto* lines = &m_trace;
    log->setSink([lines](int, const std::string& text) { lines->push_back(text); });
    m_support = std::make_unique<CQzVMSupport>();
  }

  bool wasTraced(const std::string& text) const {
    for (const std::string& line : m_trace) {
      if (line == text) {
        return true;
      }
    }
    return false;
  }

  // Tool runs of host recorded by the simulator whose command line holds part.
  size_t runsOf(const std::string& host, const std::string& part) {
    size_t count = 0;
    for (const std::string& line : linesOf(admin({"log", "--host", host}))) {
      count += holds(line, part) ? 1 : 0;
    }
    return count;
  }

  CQzVMSupport& support() { return *m_support; }

  std::vector<unsigned> m_pauses;
  Lines m_trace;

 private:
  void dropSupport() {
    m_support.reset();
    qzvmfi_ctx::ErrorManager::instance(true);
    qzvmfi_ctx::TraceLog::instance(true);
  }

  std::unique_ptr<qztest::TempDir> m_root;
  std::unique_ptr<CQzVMSupport> m_support;
};

}  // namespace qzvmfi_it

#endif  // QZVMFI_TESTS_SIM_HOST_ENV_H
