// The plug-in as a framework reaches it: through its entry points, with the
// volume manager's tools answered by the exec seam. OperationsTest adds the
// framework's records of a node and the tools' answers that the operations
// of the plug-in read.
#ifndef QZVMFI_TESTS_UNIT_PLUGIN_EXPORTS_ENV_H
#define QZVMFI_TESTS_UNIT_PLUGIN_EXPORTS_ENV_H

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "../plugin_env.h"
#include "framework_records.h"
#include "osutil.h"
#include "plugin/exports.h"
#include "plugin/qzvm_plugin.h"

namespace qzvmfi_test {

using Lines = std::vector<std::string>;
using PluginSingleton = qzfi_pdk_4_4::CFiContextSingleton<CQzVMPlugin, qzvmfi>;

inline const char kRpm[] = "/bin/rpm -qa ";
inline const Lines kInstalled = {"glibc-2.36\n", "ZOLKqzvm-8.0.0-1.x86_64\n"};

class ExportsTest : public PluginEnv {
 protected:
  void SetUp() override {
    PluginEnv::SetUp();
    m_traceLevel = std::make_unique<ScopedEnv>("QZFI_TRACE_LEVEL", "6");
    qzfi_pdk_4_4::CFiExecSeam::answer(kRpm, 0, kInstalled);
  }

  void TearDown() override {
    qzvmfi_fi_pgn_fini();
    m_traceLevel.reset();
    PluginEnv::TearDown();
  }

  int initPlugin(qfi_startup* startup = nullptr) {
    return qzvmfi_fi_pgn_init(startup, &m_version, "qzfi-test");
  }

  bool enteredScope(const std::string& function) const {
    return !traced("Entering Function " + function + " [").empty();
  }

  static CQzVMPlugin& plugin() { return *PluginSingleton::instance(); }

  qfi_version m_version{0, 9, 9, 9};

 private:
  std::unique_ptr<ScopedEnv> m_traceLevel;
};

// Lines as a tool prints them, each with its line feed.
inline Lines out(std::initializer_list<std::string> lines) {
  Lines result;
  for (const std::string& line : lines) {
    result.push_back(line + "\n");
  }
  return result;
}

// One disk of a volume as the tools name it: its multipath node, its
// operating-system path and its disk-media name.
struct TestDisk {
  std::string node;
  std::string os;
  std::string dm;
};

// The plug-in started through its init entry point, with tools in a folder
// of this test program that has the optional tools (multipathing and volume
// sets), so that multipath nodes and OS disks have names of their own. The
// folder is the same for every test: the engine, which lives as long as the
// process, reads it once.
class OperationsTest : public ExportsTest {
 protected:
  void SetUp() override {
    ExportsTest::SetUp();
    writeFile(configFile(), std::string("[CLI_TOOL_INFO]\nFILEPATH_QzVM=") + kToolDir + "\n");
    // Devices that an operation deletes are written under a scratch folder,
    // never under the machine's /sys.
    setQzVMSysRoot(m_sysRoot.path());
    // Waits for disks are counted, never slept.
    setQzVMSleep([this](unsigned seconds) { m_pauses.push_back(seconds); });
    ASSERT_EQ(0, initPlugin());
    qzfi_pdk_4_4::CFiExecSeam::clearCommands();
    m_trace.clear();
  }

  void TearDown() override {
    ExportsTest::TearDown();
    setQzVMSleep(nullptr);
    setQzVMSysRoot("");
  }

  // The engine lives as long as the process and keeps what it listed until
  // the plug-in frees its last node, which few tests do: each test names its
  // own group and disks, so that tests run in one process see each other's
  // lists no more than tests run one by one.
  static int nextTestNumber() {
    static int number = 0;
    return ++number;
  }
  const std::string m_number = std::to_string(nextTestNumber());
  const std::string m_dg = "dg" + m_number;
  const std::string m_path = "/dev/qz/dsk/" + m_dg + "/vol1";
  TempDir m_sysRoot;
  std::vector<unsigned> m_pauses;
  const std::vector<TestDisk> m_disks = {{"qzarr" + m_number + "_0", "sdb", m_dg + "d00"},
                                         {"qzarr" + m_number + "_1", "sdc", m_dg + "d01"},
                                         {"qzarr" + m_number + "_2", "sdd", m_dg + "d02"}};

  static constexpr const char* kToolDir = QZ_TEST_DATA_DIR "/bin/";

  // A command line of a tool of the tool folder.
  static std::string qz(const std::string& rest) { return kToolDir + rest; }

  static void answer(const std::string& rest, int status, const Lines& output) {
    qzfi_pdk_4_4::CFiExecSeam::answer(qz(rest), status, output);
  }
  static void expect(const std::string& rest, int status, const Lines& output) {
    qzfi_pdk_4_4::CFiExecSeam::expect(qz(rest), status, output);
  }
  static Lines commands() { return qzfi_pdk_4_4::CFiExecSeam::commands(); }
  // The command lines of the tool folder given without the folder.
  static Lines run(std::initializer_list<std::string> rests) {
    Lines lines;
    for (const std::string& rest : rests) {
      lines.push_back(qz(rest));
    }
    return lines;
  }

  // Every command throws what thrower throws.
  template <class Thrower>
  static void toolsThrow(Thrower thrower) {
    qzfi_pdk_4_4::CFiExecSeam::disable();
    qzfi_pdk_4_4::CFiExecSeam::enable();
    qzfi_pdk_4_4::CFiExecSeam::setResponder(
        [thrower](const std::string&, qzfi_pdk_4_4::CFiExecSeam::Answer&) -> bool {
          thrower();
          return false;
        });
  }

  // --- the tools' answers about a volume vol of group dg on disks ---

  // "qzinfo -g DG VOL" of a started volume.
  static void volumeExists(const std::string& dg, const std::string& vol) {
    answer("qzinfo   -g " + dg + " " + vol, 0, out({vol + "  fsgen  Started"}));
  }
  static void volumeMissing(const std::string& dg, const std::string& vol) {
    answer("qzinfo   -g " + dg + " " + vol, 11,
           out({"QZVM qzinfo ERROR Q-5-1-301 " + vol + " not in disk group " + dg}));
  }
  // "qzprint -g DG VOL": the volume with its plex and subdisk.
  static void volumeObjects(const std::string& dg, const std::string& vol) {
    answer("qzprint   -g " + dg + "  " + vol, 0,
           out({"TY  NAME  ASSOC  KSTATE  LENGTH  PLOFFS  STATE  TUTIL0  PUTIL0",
                "v  " + vol + "  fsgen  ENABLED  204800  -  ACTIVE  -  -",
                "pl  " + vol + "-01  " + vol + "  ENABLED  204800  -  ACTIVE  -  -",
                "sd  " + dg + "d00-01  " + vol + "-01  ENABLED  204800  0  -  -  -"}));
  }
  // "qzdisk -g DG list", as the disks of a group and as their media names
  // are listed.
  static void groupDisks(const std::string& dg, const std::vector<TestDisk>& disks) {
    Lines rows = out({"DEVICE  TYPE  DISK  GROUP  STATUS"});
    for (const TestDisk& disk : disks) {
      rows.push_back(disk.node + "  auto:cdsdisk  " + disk.dm + "  " + dg + "  online\n");
    }
    answer("qzdisk   -g " + dg + "  list ", 0, rows);
    answer("qzdisk   -g " + dg + " list ", 0, rows);
  }
  // "qzdisk list NODE" of a disk of group dg.
  static Lines diskListing(const TestDisk& disk, const std::string& dg, const std::string& dgid) {
    return out(
        {"Device:    " + disk.node, "type:      auto", "disk:      name=" + disk.dm + " id=17.1.A",
         "group:     name=" + dg + " id=" + dgid, "info:      format=cdsdisk",
         "flags:     online ready private autoconfig", "public:    slice=3 offset=65792 len=65536",
         "private:   slice=3 offset=256 len=65536", "configs:   count=1 len=48144",
         "logs:      count=1 len=7296"});
  }
  // "qzdmpadm getsubpaths dmpnodename=NODE": the disk's one OS path.
  static void subpaths(const TestDisk& disk) {
    answer("qzdmpadm   getsubpaths  dmpnodename=" + disk.node, 0,
           out({"NAME  STATE[A]  PATH-TYPE[M]  CTLR-NAME  ENCLR-TYPE  ENCLR-NAME  ATTRS",
                "==============================================================",
                disk.os + "  ENABLED(A)  PRIMARY  c2  QZARR  qzarr0  -"}));
  }
  // "qzdmpadm getdmpnode nodename=OS": the disk's node.
  static void dmpNode(const TestDisk& disk) {
    answer("qzdmpadm   getdmpnode  nodename=" + disk.os, 0,
           out({"NAME  STATE  ENCLR-TYPE  PATHS  ENBL  DSBL  ENCLR-NAME",
                "==============================================================",
                disk.node + "  ENABLED  QZARR  1  1  0  qzarr0"}));
  }
  // The configuration dump of group dg.
  static Lines dump(const std::string& dg, const std::vector<TestDisk>& disks) {
    Lines lines = out({"dg " + dg, "\tdgid=17.9.A", "\tguid={1}"});
    for (const TestDisk& disk : disks) {
      Lines record = out({"dm " + disk.dm, "\tda_name=" + disk.node, "\tguid={2}"});
      lines.insert(lines.end(), record.begin(), record.end());
    }
    return lines;
  }
  // Everything that recording the configuration of the group of vol reads.
  static void groupRecords(const std::string& dg, const std::vector<TestDisk>& disks) {
    groupDisks(dg, disks);
    for (const TestDisk& disk : disks) {
      answer("qzdisk   list " + disk.node, 0, diskListing(disk, dg, "17.9.A"));
      subpaths(disk);
    }
    answer("qzprint   -vxpsc  -g " + dg + " -m ", 0, dump(dg, disks));
  }
  // The command lines of that recording.
  static Lines recordingRuns(const std::string& dg, const std::vector<TestDisk>& disks) {
    Lines lines = run({"qzdisk   -g " + dg + "  list ", "qzdisk   -g " + dg + " list "});
    for (const TestDisk& disk : disks) {
      lines.push_back(qz("qzdisk   list " + disk.node));
    }
    lines.push_back(qz("qzprint   -vxpsc  -g " + dg + " -m "));
    return lines;
  }

  // The pushed messages with their severity, oldest first.
  std::vector<int> severities() const {
    std::vector<int> result;
    for (const auto& message : errors()) {
      result.push_back(message->getSeverity());
    }
    return result;
  }

  // The private data that the plug-in keeps for node.
  static CQzVMData* dataOf(qfi_domain* node) { return plugin().GetPrivateData(node); }

  // The node's provider state restored from a blob of text, as the
  // framework restores it on another host.
  static int restoreState(qfi_domain* node, const std::string& text) {
    std::string bytes = text;
    qfi_blob blob{bytes.size() + 1, &bytes[0], 1};
    return qzvmfi_fi_pgn_process_providerstate(node, &blob, QFI_PS_RESTORE);
  }

  // The node's provider state saved into a blob: its text.
  static std::string savedState(qfi_domain* node) {
    qfi_blob blob{};
    EXPECT_EQ(0, qzvmfi_fi_pgn_process_providerstate(node, &blob, QFI_PS_SAVE));
    std::string text = blob.data != nullptr ? blob.data : "";
    qzfi_free_buf(blob.data, blob.len);
    return text;
  }

  // The provider-state records of the test's disks: each OS disk paired
  // with its node, under its disk-media name.
  std::string diskRecords() const {
    std::string text;
    for (const TestDisk& disk : m_disks) {
      text += "fiid_volpriv " + disk.os + " " + disk.dm + " " + disk.node + " 0\n\n";
    }
    return text;
  }
};

}  // namespace qzvmfi_test

#endif  // QZVMFI_TESTS_UNIT_PLUGIN_EXPORTS_ENV_H
