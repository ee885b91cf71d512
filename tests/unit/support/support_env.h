// Test surroundings of the command layer's operations: tool folders and a
// /sys tree in a scratch folder, commands answered by the exec seam, pauses
// counted instead of slept, and the tools' listings that several files use.
#ifndef QZVMFI_TESTS_UNIT_SUPPORT_SUPPORT_ENV_H
#define QZVMFI_TESTS_UNIT_SUPPORT_SUPPORT_ENV_H

#include <sys/stat.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "../plugin_env.h"
#include "osutil.h"
#include "support/qzvm_support.h"

namespace qzvmfi_support_test {

using qzfi_pdk_4_4::CFiExecSeam;
using qzvmfi_test::PluginEnv;
using qzvmfi_test::readFile;
using qzvmfi_test::TempDir;
using qzvmfi_test::TraceLine;
using qzvmfi_test::writeFile;
using Lines = std::vector<std::string>;

// Gives the tests the tool directories of their scratch folder.
class TestableSupport : public CQzVMSupport {
 public:
  void setDirs(const std::string& commandDir, const std::string& supportDir) {
    m_cliPath.commandDir = commandDir;
    m_cliPath.supportDir = supportDir;
  }
};

// Output lines as the pipe runner hands them over: each with its line feed.
inline Lines out(std::initializer_list<const char*> lines) {
  Lines result;
  for (const char* line : lines) {
    result.push_back(std::string(line) + "\n");
  }
  return result;
}

// The command operations: tool folders and a /sys tree in a scratch folder,
// pauses counted instead of slept.
class SupportOpsTest : public PluginEnv {
 protected:
  void SetUp() override {
    PluginEnv::SetUp();
    qzvmfi_ctx::TraceLog::instance()->setLevel(9);
    m_scratch = std::make_unique<TempDir>();
    m_folder = m_scratch->path();
    m_bin = m_folder + "/bin/";
    m_lib = m_folder + "/lib/";
    ASSERT_EQ(mkdir(m_bin.c_str(), 0755), 0);
    ASSERT_EQ(mkdir(m_lib.c_str(), 0755), 0);
    setQzVMSleep([this](unsigned seconds) { m_pauses.push_back(seconds); });
    setQzVMSysRoot(m_folder);
    m_support = std::make_unique<TestableSupport>();
    m_support->setDirs(m_bin, m_lib);
  }

  void TearDown() override {
    m_support.reset();
    setQzVMSleep(nullptr);
    setQzVMSysRoot("");
    m_scratch.reset();
    PluginEnv::TearDown();
  }

  // A command line of the main tools, as the support object builds it.
  std::string cmd(const std::string& text) const { return m_bin + text; }
  std::string tool(const std::string& text) const { return m_lib + text; }

  void install(const std::string& path) {
    std::ofstream(path) << "#!/bin/sh\n";
    ASSERT_EQ(chmod(path.c_str(), 0755), 0);
  }
  void installDmp() { install(m_bin + "qzdmpadm"); }

  void answer(const std::string& command, int status, const Lines& output = Lines()) {
    CFiExecSeam::answer(command, status, output);
  }
  void expectOnce(const std::string& command, int status, const Lines& output = Lines()) {
    CFiExecSeam::expect(command, status, output);
  }
  Lines commands() const { return CFiExecSeam::commands(); }
  size_t runsOf(const std::string& command) const {
    size_t count = 0;
    for (const std::string& line : commands()) {
      count += line == command ? 1 : 0;
    }
    return count;
  }

  std::unique_ptr<TempDir> m_scratch;
  std::string m_folder;
  std::string m_bin;
  std::string m_lib;
  std::vector<unsigned> m_pauses;
  std::unique_ptr<TestableSupport> m_support;
};

inline const Lines kDgList =
    out({"NAME         STATE           ID", "dg1          enabled         1001.1.host",
         "dg2          disabled        1002.1.host"});

inline const Lines kDgDisks =
    out({"DEVICE       TYPE            DISK         GROUP        STATUS",
         "qzarr0_1     auto:cdsdisk    disk01       dg1          online",
         "qzarr0_2     auto:cdsdisk    disk02       dg1          online"});

inline const Lines kPrintV =
    out({"TY NAME         ASSOC        KSTATE   LENGTH   PLOFFS   STATE",
         "v  vol1         fsgen        ENABLED  204800   -        ACTIVE",
         "v  vol1_dcl     gen          ENABLED  544      -        ACTIVE",
         "vt vset1        -            ENABLED  -        -        ACTIVE",
         "pl vol1-01      vol1         ENABLED  204800   -        ACTIVE"});

// "qzdisk list" of a disk of group dg1.
inline const Lines kDiskListing =
    out({"Device:    qzarr0_1", "devicetag: qzarr0_1", "type:      auto", "hostid:    hostA",
         "disk:      name=disk01 id=1001.11.hostA", "group:     name=dg1 id=1001.1.hostA",
         "info:      format=cdsdisk,privoffset=256,pubslice=3,privslice=3",
         "flags:     online ready private autoconfig",
         "public:    slice=3 offset=65792 len=2031360 disk_offset=0",
         "private:   slice=3 offset=256 len=65536 disk_offset=0", "configs:   count=1 len=51360",
         "logs:      count=1 len=4096"});

}  // namespace qzvmfi_support_test

#endif  // QZVMFI_TESTS_UNIT_SUPPORT_SUPPORT_ENV_H
