// A soak of the hosts' agents: backup cycles (prepare and deport on A, the
// array's split to B, import and release on B) with both agents running the
// whole time, each cycle with a record of its own that stays behind, as a
// backup server's catalogue keeps them. Every copy's data must be the
// source's; each agent forgets a record's nodes when its host's part is done
// (A after deport, B after release); each agent's resident memory must not
// grow between the warm-up and the end; the installation
// probe and the delayed initialisation run once in each agent's life. The
// sanitizer build runs fewer cycles, and checks the agents' leaks at exit.
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>

#include "agent_process.h"
#include "qzfi_e2e.h"

#ifndef QZ_SOAK_CYCLES
#error "QZ_SOAK_CYCLES (how many backup cycles) must be defined by the build"
#endif

namespace {

using qzfi_e2e::CAgentProcess;
using qzfi_e2e::QzfiRun;
using qzfi_e2e::QzfiTest;
using qzfi_e2e::SimDisk;
using qzfi_e2e::viaAgent;

// QZ_SOAK_CYCLES in the environment runs another number (the 3,000 cycles
// of the memory table, scripts/soak.sh memory); the resident memory of the
// first, each 300th and each 1,000th cycle is printed.
const int kCycles = std::getenv("QZ_SOAK_CYCLES") != nullptr &&
                            std::atoi(std::getenv("QZ_SOAK_CYCLES")) > 0
                        ? std::atoi(std::getenv("QZ_SOAK_CYCLES"))
                        : QZ_SOAK_CYCLES;
// The agents' memory is measured once the caches and allocator have settled,
// and the soak's end may be at most this far above it.
const int kWarmCycle = kCycles >= 40 ? 20 : kCycles / 2;
constexpr long kGrowthKb = 2048;
// A long run: its end may be at most this far above cycle 300's, where the
// agents have met as many records as the test form's whole run.
constexpr int kLongRunFrom = 300;
constexpr long kLongRunGrowthKb = 1024;

class AgentSoakTest : public QzfiTest {
 protected:
  // Lines of host's trace logs that hold text.
  long tracedLines(const std::string& host, const std::string& text) {
    long count = 0;
    const std::string folder = root() + "/hosts/" + host + "/qzfi_log";
    for (const auto& file : std::filesystem::directory_iterator(folder)) {
      std::ifstream in(file.path());
      for (std::string line; std::getline(in, line);) {
        count += line.find(text) != std::string::npos ? 1 : 0;
      }
    }
    return count;
  }

  static std::string lastLine(const std::string& text) {
    const size_t end = text.find_last_not_of('\n');
    if (end == std::string::npos) {
      return "";
    }
    const size_t start = text.rfind('\n', end);
    const size_t from = start == std::string::npos ? 0 : start + 1;
    return text.substr(from, end + 1 - from);
  }

  // A command sent to an agent, then the blast-radius check of the runs
  // the agent made for it.
  QzfiRun agent(const CAgentProcess& to, const qzfi_e2e::Lines& args) {
    return checked("", args, [&] { return viaAgent(to, args); });
  }

  // One backup cycle; false (with a failure) when a step did not work.
  bool cycle(const CAgentProcess& a, const CAgentProcess& b, int n) {
    const std::string cycleRecord = root() + "/cycle-" + std::to_string(n) + ".json";
    const QzfiRun prepared = agent(a, {"prepare", "/dev/qz/dsk/dg1/vol1", "--record", cycleRecord});
    EXPECT_EQ(0, prepared.status) << "cycle " << n << ": " << prepared;
    // The split reads the disks from the fixture's record: a link to this
    // cycle's.
    std::filesystem::remove(record());
    std::filesystem::create_symlink(cycleRecord, record());
    const std::string secondary = splitTo("B");
    const QzfiRun deported = agent(a, {"deport", "--record", cycleRecord});
    EXPECT_EQ(0, deported.status) << "cycle " << n << ": " << deported;
    const QzfiRun imported =
        agent(b, {"--quiet", "import", "--record", cycleRecord, "--secondary", secondary});
    EXPECT_EQ(0, imported.status) << "cycle " << n << ": " << imported;
    if (imported.status != 0) {
      return false;
    }
    const auto [group, volume] = groupAndVolume(qzfi_e2e::linesOf(imported.out).at(0));
    EXPECT_EQ(m_sourceSum, checksum("B", group, volume)) << "cycle " << n;
    const QzfiRun released = agent(b, {"release", "--record", cycleRecord});
    EXPECT_EQ(0, released.status) << "cycle " << n << ": " << released;
    // The array takes the copy's LUNs back, and the next cycle starts anew.
    for (const SimDisk& copy : m_copies) {
      admin({"disk", "remove", copy.lun});
    }
    // Each agent is done with the record: it keeps none of its nodes.
    EXPECT_THAT(lastLine(a.log()), ::testing::EndsWith(": exit 0; 0 node(s) kept")) << n;
    EXPECT_THAT(lastLine(b.log()), ::testing::EndsWith(": exit 0; 0 node(s) kept")) << n;
    return prepared.status == 0 && deported.status == 0 && released.status == 0;
  }
};

TEST_F(AgentSoakTest, BackupCyclesThroughAgentsKeepTheDataRightAndTheMemoryFlat) {
  makeSource();
  const std::string run = root() + "/run";
  ASSERT_EQ(0, mkdir(run.c_str(), 0700));
  // Information traces show the delayed initialisation.
  CAgentProcess a(root(), "A", run, {"QZFI_TRACE_LEVEL=3"});
  CAgentProcess b(root(), "B", run, {"QZFI_TRACE_LEVEL=3"});
  ASSERT_EQ("", a.error());
  ASSERT_EQ("", b.error());

  long warmA = 0;
  long warmB = 0;
  [[maybe_unused]] long fromA = 0;  // read only where memory is measured
  [[maybe_unused]] long fromB = 0;
  for (int n = 1; n <= kCycles; ++n) {
    ASSERT_TRUE(cycle(a, b, n)) << a.log() << b.log();
    if (n == 1 || n % 300 == 0 || n % 1000 == 0) {
      std::cout << "cycle " << n << ": resident memory A " << a.residentKb() << " kB, B "
                << b.residentKb() << " kB" << std::endl;
    }
    if (n == kWarmCycle) {
      warmA = a.residentKb();
      warmB = b.residentKb();
    }
    if (n == kLongRunFrom) {
      fromA = a.residentKb();
      fromB = b.residentKb();
    }
  }
  const long endA = a.residentKb();
  const long endB = b.residentKb();
  RecordProperty("resident_kb_a", std::to_string(warmA) + " -> " + std::to_string(endA));
  RecordProperty("resident_kb_b", std::to_string(warmB) + " -> " + std::to_string(endB));
  std::cout << "resident memory after cycle " << kWarmCycle << " and " << kCycles << ": A " << warmA
            << " -> " << endA << " kB, B " << warmB << " -> " << endB << " kB\n";
#ifndef __SANITIZE_ADDRESS__
  // AddressSanitizer holds freed blocks in its quarantine, so its resident
  // memory grows without a leak; its leak check at the agents' exit stands
  // in for this bound there.
  EXPECT_LE(endA - warmA, kGrowthKb);
  EXPECT_LE(endB - warmB, kGrowthKb);
  if (kCycles >= 2 * kLongRunFrom) {
    std::cout << "resident memory after cycle " << kLongRunFrom << " and " << kCycles << ": A "
              << fromA << " -> " << endA << " kB, B " << fromB << " -> " << endB << " kB\n";
    EXPECT_LE(endA - fromA, kLongRunGrowthKb);
    EXPECT_LE(endB - fromB, kLongRunGrowthKb);
  }
#endif

  for (const char* host : {"A", "B"}) {
    EXPECT_EQ("1\n", admin({"log", "--host", host, "--tool", "rpm", "--total"})) << host;
    EXPECT_EQ(1, tracedLines(host, "delayed initialisation of the plug-in")) << host;
  }
  // SIGTERM: the plug-in finalised, exit 0 (in the sanitizer build, no leak).
  EXPECT_EQ(0, a.stop()) << a.log();
  EXPECT_EQ(0, b.stop()) << b.log();
  expectConsistent();
}

}  // namespace
