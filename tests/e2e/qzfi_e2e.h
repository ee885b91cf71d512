// End-to-end surroundings: a fresh simulation per test with hosts A, B and
// C, the qzfi program run as a user runs it, on a host in the simulator's
// sandbox ("qzsim host NAME -- qzfi ..."), and the simulator asked what
// became of the disks, groups, device nodes and data. Every qzfi command
// is followed by the blast-radius check (../blast_radius.h): the tool runs
// it made changed only the copy's disks and groups, and the source only in
// the commands that act on it (access); what else a test's commands may
// change it declares through blastRadius().
#ifndef QZVMFI_TESTS_E2E_QZFI_E2E_H
#define QZVMFI_TESTS_E2E_QZFI_E2E_H

#include <cstdlib>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <qzsim/sandbox.h>

#include "../blast_radius.h"
#include "../host/tempdir.h"
#include "../integration/sim_commands.h"

namespace qzfi_e2e {

using Json = nlohmann::ordered_json;
using qzvmfi_it::Lines;
using qzvmfi_it::linesOf;
using qzvmfi_it::parseDisks;
using qzvmfi_it::SimDisk;
using qzvmfi_it::words;

// What a qzfi run gave back.
struct QzfiRun {
  int status = -1;
  std::string out;
  std::string err;
  // Standard output read as qzfi's --json document.
  Json json() const {
    try {
      return Json::parse(out);
    } catch (const nlohmann::json::exception& error) {
      ADD_FAILURE() << "not a JSON document (" << error.what() << "):\n" << out << err;
      return Json::object();
    }
  }
};

inline std::ostream& operator<<(std::ostream& out, const QzfiRun& run) {
  return out << "status " << run.status << "\n--- out\n" << run.out << "--- err\n" << run.err;
}

class QzfiTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_root = std::make_unique<qztest::TempDir>();
    m_blast = std::make_unique<qzblast::BlastRadius>(root());
    admin({"init"});
    for (const char* host : {"A", "B", "C"}) {
      admin({"host", "add", host});
    }
    const qzsim::CommandResult probe = sandboxed("A", {"true"});
    if (probe.status != 0) {
      // The test script demands the sandbox (it runs as root); elsewhere a
      // machine without namespaces skips these tests rather than failing.
      if (getenv("QZ_REQUIRE_SANDBOX") != nullptr) {
        FAIL() << "no sandbox: " << probe.err;
      }
      GTEST_SKIP() << "no sandbox: " << probe.err;
    }
  }

  void TearDown() override {
    m_blast.reset();
    m_root.reset();
  }

  const std::string& root() const { return m_root->path(); }
  std::string record() const { return m_root->file("backup.json"); }

  // COMMAND run as host in the sandbox.
  qzsim::CommandResult sandboxed(const std::string& host, const Lines& command) {
    Lines argv = {qzsim::simBinary(), "host", host, "--"};
    argv.insert(argv.end(), command.begin(), command.end());
    return qzsim::runCommand(argv, {"QZSIM_ROOT=" + root()});
  }

  // "qzfi ARGS..." run on host, then the blast-radius check of its runs.
  QzfiRun qzfi(const std::string& host, const Lines& args) {
    Lines command = {QZFI_BINARY};
    command.insert(command.end(), args.begin(), args.end());
    return checked(host, args, [&] {
      const qzsim::CommandResult result = sandboxed(host, command);
      return QzfiRun{result.status, result.out, result.err};
    });
  }

  // The command args on host run by run (qzfi itself, or an agent's
  // client), then the blast-radius check of the tool runs made meanwhile.
  template <class Run>
  QzfiRun checked(const std::string& host, const Lines& args, const Run& run) {
    const long mark = blastMark(host, args);
    const QzfiRun result = run();
    expectWithinBlastRadius(mark, args);
    return result;
  }

  // What the commands of this test may change besides the copy's disks
  // (declared by splitTo), the groups made on them, the source group dg1
  // (declared by makeSource, changed by access only) and the disks and
  // group named to format, online and unformat.
  qzblast::BlastRadius& blastRadius() { return *m_blast; }

  // The commands (their first word, "access") whose steps act on the
  // source groups.
  std::set<std::string>& commandsOnTheSource() { return m_onSource; }

  // Where a command starts in the simulator's log; the disks and the group
  // that a resource command names are the ones it may change.
  long blastMark(const std::string& host, const Lines& args) {
    static const std::set<std::string> resources = {"format", "online", "unformat"};
    const std::string command = commandOf(args);
    if (resources.count(command) != 0) {
      for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--group" && i + 1 < args.size()) {
          m_blast->allowGroup(args[i + 1]);
        } else if (args[i].compare(0, 5, "/dev/") == 0) {
          m_blast->allowDisk(host, args[i]);
        }
      }
    }
    return m_blast->mark();
  }

  // The changing tool runs since mark, made by the command args (or its
  // agent), touched only what it may change.
  void expectWithinBlastRadius(long mark, const Lines& args) {
    const bool onSource = m_onSource.count(commandOf(args)) != 0;
    for (const std::string& violation : m_blast->since(mark, onSource)) {
      ADD_FAILURE() << "qzfi " << joined(args) << ": outside the blast radius: " << violation;
    }
  }

  // The qzfi command word of args, past the options before it.
  static std::string commandOf(const Lines& args) {
    static const std::set<std::string> withValue = {"--plugin", "--agent"};
    for (size_t i = 0; i < args.size(); ++i) {
      if (withValue.count(args[i]) != 0) {
        ++i;
      } else if (args[i].compare(0, 1, "-") != 0) {
        return args[i];
      }
    }
    return std::string();
  }

  static std::string joined(const Lines& args) {
    std::string text;
    for (const std::string& arg : args) {
      text += (text.empty() ? "" : " ") + arg;
    }
    return text;
  }

#ifdef QZ_INSTANT_SLEEP
  // "qzfi ARGS..." on host with its sleeps instant; the seconds asked for
  // land in sleeps().
  QzfiRun qzfiWithoutWaiting(const std::string& host, const Lines& args) {
    const char* asan = getenv("ASAN_OPTIONS");
    Lines command = {
        "env", std::string("LD_PRELOAD=") + QZ_INSTANT_SLEEP, "QZ_E2E_SLEEP_LOG=" + sleeps(),
        std::string("ASAN_OPTIONS=") + (asan != nullptr ? asan : "") + ":verify_asan_link_order=0",
        QZFI_BINARY};
    command.insert(command.end(), args.begin(), args.end());
    return checked(host, args, [&] {
      const qzsim::CommandResult result = sandboxed(host, command);
      return QzfiRun{result.status, result.out, result.err};
    });
  }

  std::string sleeps() const {
    return root() + "/sleeps";
  }
#endif

  // "qzsim ARGS..." that must succeed; its standard output.
  std::string admin(const Lines& args) {
    return qzvmfi_it::simAdminOk(root(), args);
  }

  // A tool run as host, outside qzfi, that must succeed.
  std::string tool(const std::string& host, const std::string& commandLine) {
    return qzvmfi_it::simToolOk(root(), host, commandLine);
  }

  // Tool runs of every host so far, from the simulator's log.
  long toolRuns() {
    return std::stol(admin({"log", "--total"}));
  }

  std::string checksum(const std::string& host, const std::string& dg, const std::string& vol) {
    return admin({"volume", "checksum", "--host", host, dg, vol});
  }

  // The owner of a device node on host, "uid:gid", or "missing".
  std::string ownerOf(const std::string& host, const std::string& path) {
    const qzsim::CommandResult result = sandboxed(host, {"stat", "-c", "%u:%g", path});
    return result.status == 0 ? words(result.out).at(0) : "missing";
  }

  // The groups imported on host.
  Lines groups(const std::string& host) {
    Lines names;
    const Lines lines = linesOf(tool(host, "qzdg list"));
    for (size_t i = 1; i < lines.size(); ++i) {
      names.push_back(words(lines[i]).at(0));
    }
    return names;
  }

  void expectConsistent() {
    const qzsim::CommandResult check = qzsim::simAdmin(root(), {"check"});
    EXPECT_EQ(check.status, 0) << check.out << check.err;
  }

  // The source: group dg1 on host A over two disks with two paths each, a
  // 32 MB volume vol1 with a DCO log, its device nodes owned by 1001:1002,
  // and data written from seed 7.
  void makeSource(const std::string& host = "A") {
    m_sourceDisks = parseDisks(
        admin({"disk", "add", "--count", "2", "--hosts", host, "--paths", "2", "--size", "64m"}));
    tool(host, "qzdisk scandisks");
    std::string members;
    for (const SimDisk& disk : m_sourceDisks) {
      tool(host, "qzdisk -f init " + disk.node + " type=auto format=cdsdisk");
      members += " " + disk.node;
    }
    tool(host, "qzdg init dg1" + members);
    tool(host, "qzassist -g dg1 make vol1 32m logtype=dco");
    const qzsim::CommandResult owned =
        sandboxed(host, {"chown", "1001:1002", "/dev/qz/dsk/dg1/vol1", "/dev/qz/rdsk/dg1/vol1"});
    ASSERT_EQ(owned.status, 0) << owned.err;
    admin({"volume", "write", "--host", host, "dg1", "vol1", "--seed", "7"});
    m_sourceSum = checksum(host, "dg1", "vol1");
    declareSource("dg1", m_sourceDisks);
  }

  // A group of the test's own, made with tool(): changed only by the
  // commands that act on the source.
  void declareSource(const std::string& group, const std::vector<SimDisk>& disks) {
    Lines luns;
    for (const SimDisk& disk : disks) {
      luns.push_back(disk.lun);
    }
    m_blast->sourceGroup(group, luns);
  }

  // Disks that the array copied for the test: the copy's.
  void declareCopies(const std::vector<SimDisk>& copies) {
    for (const SimDisk& copy : copies) {
      m_blast->allowLun(copy.lun);
    }
  }

  // The QzVM node of a source sub-object (an OS disk path of the source host).
  std::string nodeOfSubObject(const std::string& path) {
    const std::string name = path.substr(path.rfind('/') + 1);
    for (const SimDisk& disk : m_sourceDisks) {
      for (const std::string& os : disk.osNames) {
        if (os == name) {
          return disk.node;
        }
      }
    }
    ADD_FAILURE() << "no source disk has the path " << path;
    return std::string();
  }

  // The array splits the disks under the record's sub-objects to host to,
  // in their order; the copies' first OS paths in the same order, joined
  // by commas for --secondary.
  std::string splitTo(const std::string& to, const std::string& from = "A") {
    Lines nodes;
    const Json prepared = readRecord();
    for (const Json& path : prepared["sub_objects"]) {
      nodes.push_back(nodeOfSubObject(path.get<std::string>()));
    }
    std::string list;
    for (const std::string& node : nodes) {
      list += (list.empty() ? "" : ",") + node;
    }
    m_copies = parseDisks(
        admin({"array", "split", "--disks", list, "--from-host", from, "--to-host", to}));
    declareCopies(m_copies);
    return osPathsOf(m_copies);
  }

  // The array presents the copy's disks to host to instead of host from,
  // under to's own names; the disks as to sees them.
  std::vector<SimDisk> presentCopiesTo(const std::string& from, const std::string& to) {
    std::vector<SimDisk> moved;
    for (const SimDisk& copy : m_copies) {
      admin({"disk", "detach", copy.lun, "--host", from});
      moved.push_back(
          parseDisks(admin({"disk", "attach", copy.lun, "--host", to, "--paths", "2"})).at(0));
    }
    return moved;
  }

  static std::string osPathsOf(const std::vector<SimDisk>& disks) {
    std::string secondary;
    for (const SimDisk& disk : disks) {
      secondary += (secondary.empty() ? "" : ",") + ("/dev/" + disk.osNames.at(0));
    }
    return secondary;
  }

  Json readRecord() {
    return Json::parse(qztest::readFile(record()));
  }

  // prepare and deport on A around a split to host to; the --secondary list.
  std::string prepareSplitDeport(const std::string& to) {
    const QzfiRun prepared = qzfi("A", {"prepare", "/dev/qz/dsk/dg1/vol1", "--record", record()});
    EXPECT_EQ(prepared.status, 0) << prepared;
    const std::string secondary = splitTo(to);
    // The source goes on changing after the split.
    admin({"volume", "write", "--host", "A", "dg1", "vol1", "--seed", "8"});
    const QzfiRun deported = qzfi("A", {"deport", "--record", record()});
    EXPECT_EQ(deported.status, 0) << deported;
    return secondary;
  }

  // The group and volume of a copy's block device path.
  static std::pair<std::string, std::string> groupAndVolume(const std::string& device) {
    const Lines parts = [&] {
      Lines pieces;
      std::istringstream in(device);
      for (std::string piece; std::getline(in, piece, '/');) {
        pieces.push_back(piece);
      }
      return pieces;
    }();
    return {parts.at(parts.size() - 2), parts.back()};
  }

  std::vector<SimDisk> m_sourceDisks;
  std::vector<SimDisk> m_copies;
  std::string m_sourceSum;

 private:
  std::unique_ptr<qztest::TempDir> m_root;
  std::unique_ptr<qzblast::BlastRadius> m_blast;
  std::set<std::string> m_onSource = {"access"};
};

}  // namespace qzfi_e2e

#endif  // QZVMFI_TESTS_E2E_QZFI_E2E_H
