// Whole backup cycles through qzfi on the simulator, as the main job runs
// them: prepare on host A, the array's split to host B, deport on A, import
// on B, release on B. Each cycle runs in three ways side by side:
//   oneshot  one qzfi process per command, timed inside the host's sandbox
//            (the sandbox that the simulator sets up around a host's command
//            is the simulator's, not qzfi's);
//   agents   "qzfi serve" on A and on B for the whole run; each command sent
//            on the agent's socket from this process, as a framework's
//            backup server that keeps its agents' connection code loaded
//            sends it, timed from connecting to the exit code's arrival;
//   clients  the same agents, each command through a "qzfi --agent"
//            process, timed from its start to its exit: the process start
//            of the one-shot form without the plug-in's start.
// Per cycle:
//   wall_ms   the qzfi commands and the split;
//   split_ms  the array's split;
//   exec_ms   the tool runs as the framework's pipe runner times them, from
//             spawning the shell to the tool's exit;
//   tools_ms  the tools' own time, from the simulator's log;
//   own_ms    wall - exec - split: the framework's and the plug-in's own
//             time, process starts and the plug-in's start included;
//   own_per_disk_ms  own_ms over the source group's disks;
//   agent_cpu_ms  (agents) the CPU time of the agents' own threads, the
//             tools' processes left out: the framework's and plug-in's work
//             as a loaded machine does not stretch it;
//   cpu_per_disk_ms  agent_cpu_ms over the source group's disks;
//   runs      tool runs per cycle.
// Target: own_ms through agents at most 10 ms, and at most a quarter of the
// one-shot figure (printed at the end). The scale runs (agents only) vary
// the source group: one volume over 2, 32, 128, 512 and 1,024 disks, and
// 128 disks with 1, 32 and 256 volumes; cpu_per_disk_ms at 1,024 disks
// within 1.5x of the 32-disk figure, own_per_disk_ms within 2x. They also
// give agents_peak_rss_mb (both agents' peak resident memory) and
// record_kb (the record's largest size after a command).
#include <benchmark/benchmark.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "agent_client.h"
#include "fsutil.h"
#include "qzsim/sandbox.h"

namespace {

using Json = nlohmann::json;
using Clock = std::chrono::steady_clock;

std::vector<std::string> wordsOf(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> words;
  for (std::string word; in >> word;) {
    words.push_back(word);
  }
  return words;
}

std::vector<char*> pointers(const std::vector<std::string>& texts) {
  std::vector<char*> result;
  for (const std::string& text : texts) {
    result.push_back(const_cast<char*>(text.c_str()));
  }
  result.push_back(nullptr);
  return result;
}

// Inside a host's sandbox this program runs the command it is given and
// writes the command's wall time, from starting it to its exit, as the last
// line of standard error.
constexpr char kTimedOption[] = "--timed";
constexpr char kElapsedPrefix[] = "qzfi_bench elapsed ";

std::string benchProgram() {
  char path[4096];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
  return length > 0 ? std::string(path, static_cast<size_t>(length)) : std::string();
}

// posix_spawn, not fork: copying this program's page tables is not qzfi's
// time.
int timedMain(char** command) {
  const Clock::time_point start = Clock::now();
  pid_t child = 0;
  const bool spawned = posix_spawn(&child, command[0], nullptr, nullptr, command, environ) == 0;
  int status = 0;
  bool reaped = false;
  while (spawned && !reaped) {
    reaped = waitpid(child, &status, 0) == child;
    if (!reaped && errno != EINTR) {
      break;
    }
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  fprintf(stderr, "%s%.6f\n", kElapsedPrefix, seconds);
  return reaped && WIFEXITED(status) ? WEXITSTATUS(status) : 127;
}

// The time timedMain wrote; its line taken out of the command's error text.
double takeElapsed(std::string& err) {
  const size_t line = err.rfind(kElapsedPrefix);
  if (line == std::string::npos) {
    return 0;
  }
  const double seconds = std::stod(err.substr(line + strlen(kElapsedPrefix)));
  err.erase(line);
  return seconds;
}

// A new folder from a mkdtemp pattern; empty when it cannot be made.
std::string newFolder(const std::string& pattern) {
  std::string path = pattern;
  return mkdtemp(&path[0]) != nullptr ? path : std::string();
}

// The simulated storage lives in memory when the machine has a tmpfs at
// /dev/shm. On the record's file system, the array's copies and the tools'
// state are dirty pages that the next fsync of the record has to write out,
// whereas a real array copies inside itself and a volume manager's tools
// write their own metadata through. The record stays on the disk, with the
// syncs of a real backup.
std::string simulationFolder() {
  std::string folder = newFolder("/dev/shm/qzfi-bench-sim-XXXXXX");
  return folder.empty() ? newFolder("/tmp/qzfi-bench-sim-XXXXXX") : folder;
}

// The first process under pid (itself included) whose name is name; -1 when
// none.
pid_t processNamed(pid_t pid, const std::string& name) {
  std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
  std::string own;
  if (std::getline(comm, own) && own == name) {
    return pid;
  }
  std::ifstream children("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) +
                         "/children");
  for (pid_t child = 0; children >> child;) {
    const pid_t found = processNamed(child, name);
    if (found > 0) {
      return found;
    }
  }
  return -1;
}

// The CPU time of the threads of process pid so far, in seconds, from the
// scheduler's nanosecond counts; children are not counted.
double cpuSeconds(pid_t pid) {
  if (pid <= 0) {
    return 0;
  }
  double seconds = 0;
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  for (const auto& task : std::filesystem::directory_iterator(tasks)) {
    std::ifstream schedstat(task.path() / "schedstat");
    double nanoseconds = 0;
    if (schedstat >> nanoseconds) {
      seconds += nanoseconds / 1e9;
    }
  }
  return seconds;
}

// "qzfi serve" of a host in its sandbox, until the simulation goes.
class CAgent {
 public:
  CAgent(const std::string& root, const std::string& host, const std::string& folder)
      : socket(folder + "/" + host + ".sock") {
    std::vector<std::string> env;
    for (char** entry = environ; *entry != nullptr; ++entry) {
      env.emplace_back(*entry);
    }
    env.push_back("QZSIM_ROOT=" + root);
    const std::vector<std::string> argv = {qzsim::simBinary(), "host",  host,       "--",
                                           QZFI_BINARY,        "serve", "--socket", socket};
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0) {
      return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ready[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    std::vector<char*> args = pointers(argv);
    std::vector<char*> envp = pointers(env);
    if (posix_spawn(&m_pid, argv[0].c_str(), &actions, nullptr, args.data(), envp.data()) != 0) {
      m_pid = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    close(ready[1]);
    std::string line;
    char c = 0;
    while (m_pid > 0 && read(ready[0], &c, 1) == 1 && c != '\n') {
      line += c;
    }
    close(ready[0]);
    serving = line.find("serving on") != std::string::npos;
    m_server = serving ? processNamed(m_pid, "qzfi") : -1;
  }
  ~CAgent() {
    if (m_pid > 0) {
      kill(m_pid, SIGTERM);
      waitpid(m_pid, nullptr, 0);
    }
  }
  CAgent(const CAgent&) = delete;
  CAgent& operator=(const CAgent&) = delete;

  // The CPU time of the agent's process so far, in seconds.
  double cpu() const { return cpuSeconds(m_server); }
  // The agent's peak resident memory so far, in bytes (VmHWM).
  double peakResident() const {
    std::ifstream status("/proc/" + std::to_string(m_server) + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.compare(0, 6, "VmHWM:") == 0) {
        return std::stod(line.substr(6)) * 1024;
      }
    }
    return 0;
  }

  std::string socket;
  bool serving = false;

 private:
  pid_t m_pid = -1;     // the simulator's host process around the agent
  pid_t m_server = -1;  // qzfi serve
};

// How the cycle's qzfi commands run (see the top of this file).
enum class Mode { oneshot, agents, clients };

const char* nameOf(Mode mode) {
  switch (mode) {
    case Mode::agents:
      return "agents";
    case Mode::clients:
      return "clients";
    default:
      return "oneshot";
  }
}

// The source group: disks on A, one volume over all of them (or several
// small ones), a little data written.
struct Shape {
  int disks = 2;
  int volumes = 1;
  Mode mode = Mode::oneshot;
};

// What a run of cycles measured, summed over its cycles.
struct Totals {
  double qzfi = 0;
  double split = 0;
  double exec = 0;
  double tools = 0;
  double agentCpu = 0;
  double recordBytes = 0;  // the record's largest size after a command
  long runs = 0;
  int cycles = 0;
  double own() const { return qzfi - exec; }
};

// One simulation with the source group of a shape, and its agents when the
// commands go through them.
class Cycle {
 public:
  explicit Cycle(const Shape& shape)
      : m_shape(shape), m_root(simulationFolder()), m_records(newFolder("/tmp/qzfi-bench-XXXXXX")) {
    record = m_records + "/backup.json";
    if (m_root.empty() || m_records.empty()) {
      error = "no folder for the simulation or the record";
      return;
    }
    admin({"init"});
    admin({"host", "add", "A"});
    admin({"host", "add", "B"});
    for (int left = shape.disks; left > 0; left -= 512) {  // at most 1,000 a call
      rememberFirstPaths(admin({"disk", "add", "--count", std::to_string(std::min(left, 512)),
                                "--hosts", "A", "--paths", "2", "--size", "64m"}));
    }
    tool("qzdisk scandisks");
    std::string members;
    for (int i = 0; i < shape.disks; ++i) {
      const std::string disk = "qzarr0_" + std::to_string(i);
      tool("qzdisk -f init " + disk + " type=auto");
      members += " " + disk;
      m_disks += (m_disks.empty() ? "" : ",") + disk;
    }
    tool("qzdg init dg1" + members);
    // With one volume it spans all the disks: it takes all but one of them
    // whole and a little of the last. Sizes are in blocks.
    const long blocksPerDisk = 65280;
    const long spanning = shape.volumes == 1 ? (shape.disks - 1) * blocksPerDisk + 8192 : 8192;
    tool("qzassist -g dg1 make vol1 " + std::to_string(spanning) + " logtype=dco");
    for (int v = 2; v <= shape.volumes; ++v) {
      tool("qzassist -g dg1 make vol" + std::to_string(v) + " 8192");
    }
    admin({"volume", "write", "--host", "A", "dg1", "vol1", "--seed", "7", "--length", "1m"});
    if (shape.mode != Mode::oneshot) {
      m_agentFolder = newFolder("/tmp/qzfi-bench-run-XXXXXX");
      m_agentA = std::make_unique<CAgent>(m_root, "A", m_agentFolder);
      m_agentB = std::make_unique<CAgent>(m_root, "B", m_agentFolder);
      if (!m_agentA->serving || !m_agentB->serving) {
        error = "the agents did not start";
      }
    }
  }
  ~Cycle() {
    m_agentA.reset();
    m_agentB.reset();
    for (const std::string& folder : {m_root, m_records, m_agentFolder}) {
      if (!folder.empty()) {
        qzsim::removeTree(folder);
      }
    }
  }

  std::string admin(const std::vector<std::string>& args) {
    qzsim::CommandResult result = qzsim::simAdmin(m_root, args);
    if (result.status != 0 && error.empty()) {
      error = "qzsim " + args[0] + ": " + result.err;
    }
    return result.out;
  }
  void tool(const std::string& line) {
    qzsim::CommandResult result = qzsim::simTool(m_root, "A", line);
    if (result.status != 0 && error.empty()) {
      error = line + ": " + result.err;
    }
  }

  // COMMAND on host in the sandbox, timed there by this program (see
  // timedMain), and its wall time in seconds.
  qzsim::CommandResult sandboxed(const std::string& host, const std::vector<std::string>& command,
                                 double& seconds) {
    std::vector<std::string> argv = {qzsim::simBinary(), "host",      host, "--",
                                     benchProgram(),     kTimedOption};
    argv.insert(argv.end(), command.begin(), command.end());
    qzsim::CommandResult result = qzsim::runCommand(argv, {"QZSIM_ROOT=" + m_root});
    seconds = takeElapsed(result.err);
    if (seconds <= 0) {
      error = command[0] + " on " + host + " was not timed: " + result.err;
    }
    return result;
  }

  // COMMAND sent to host's agent from this process, timed from connecting
  // to the exit code's arrival.
  qzsim::CommandResult toAgent(const std::string& host, const std::vector<std::string>& command,
                               double& seconds) {
    std::ostringstream out;
    std::ostringstream err;
    const Clock::time_point start = Clock::now();
    const int status = qzfi_host::runThroughAgent(agentOf(host).socket, command, out, err);
    seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return {status, out.str(), err.str()};
  }

  // The client "qzfi --agent" of host's agent, timed from its start to its
  // exit.
  qzsim::CommandResult throughClient(const std::string& host, std::vector<std::string> command,
                                     double& seconds) {
    command.insert(command.begin() + 1, {"--agent", agentOf(host).socket});
    const Clock::time_point start = Clock::now();
    qzsim::CommandResult result = qzsim::runCommand(command);
    seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return result;
  }

  // Both agents' CPU time so far; 0 without agents.
  double agentCpu() const { return m_agentA ? m_agentA->cpu() + m_agentB->cpu() : 0; }
  // Both agents' peak resident memory, in bytes; 0 without agents.
  double agentPeakResident() const {
    return m_agentA ? m_agentA->peakResident() + m_agentB->peakResident() : 0;
  }

  const CAgent& agentOf(const std::string& host) const {
    return host == "A" ? *m_agentA : *m_agentB;
  }

  qzsim::CommandResult timed(const std::string& host, const std::vector<std::string>& command,
                             double& seconds) {
    switch (m_shape.mode) {
      case Mode::agents:
        return toAgent(host, command, seconds);
      case Mode::clients:
        return throughClient(host, command, seconds);
      default:
        return sandboxed(host, command, seconds);
    }
  }

  // qzfi on host, measured; its --json document.
  // After a failed step nothing more runs: the error names the first.
  Json qzfi(const std::string& host, std::vector<std::string> args, const std::string& step) {
    if (!error.empty()) {
      return Json::object();
    }
    args.insert(args.begin(), {QZFI_BINARY, "--json"});
    const long firstRun = std::stol(admin({"log", "--total"}));
    double seconds = 0;
    const double cpuBefore = agentCpu();
    qzsim::CommandResult result = timed(host, args, seconds);
    totals.agentCpu += agentCpu() - cpuBefore;
    if (result.status != 0) {
      error = step + ": " + result.out + result.err;
      return Json::object();
    }
    Json json = Json::parse(result.out);
    struct stat recordStat;
    if (stat(record.c_str(), &recordStat) == 0) {
      totals.recordBytes = std::max(totals.recordBytes, static_cast<double>(recordStat.st_size));
    }
    totals.qzfi += seconds;
    totals.exec += json["tool_seconds"].get<double>();
    totals.runs += json["tool_runs"].get<long>();
    totals.tools += toolTimeSince(firstRun);
    return json;
  }

  // The tools' own time of the runs after the first n, from the log.
  double toolTimeSince(long n) {
    double seconds = 0;
    std::istringstream log(admin({"log"}));
    std::string line;
    std::getline(log, line);  // the header
    while (std::getline(log, line)) {
      const std::vector<std::string> words = wordsOf(line);
      if (words.size() >= 4 && std::stol(words[0]) > n) {
        seconds += std::stod(words[3]) / 1e6;
      }
    }
    return seconds;
  }

  // "lunN NAME A=sdb,sdc" lines: each disk's first path on A.
  void rememberFirstPaths(const std::string& added) {
    std::istringstream lines(added);
    for (std::string line; std::getline(lines, line);) {
      const std::vector<std::string> words = wordsOf(line);
      if (words.size() >= 3) {
        m_firstPathOnA[words[1]] = "/dev/" + firstPath(words[2]);
      }
    }
  }

  static std::string firstPath(const std::string& hostPaths) {
    const std::string paths = hostPaths.substr(hostPaths.find('=') + 1);
    return paths.substr(0, paths.find(','));
  }

  // The source's disks split to B, in the order of m_disks: each copy's
  // first path on B by its source's first path on A, and the copies' LUNs.
  std::map<std::string, std::string> split(std::vector<std::string>& luns) {
    const Clock::time_point start = Clock::now();
    std::string out =
        admin({"array", "split", "--disks", m_disks, "--from-host", "A", "--to-host", "B"});
    totals.split += std::chrono::duration<double>(Clock::now() - start).count();
    std::map<std::string, std::string> copies;
    std::istringstream sources(m_disks);
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
      const std::vector<std::string> words = wordsOf(line);
      std::string source;
      if (words.size() < 3 || !std::getline(sources, source, ',')) {
        continue;
      }
      luns.push_back(words[0]);
      copies[m_firstPathOnA[source]] = "/dev/" + firstPath(words[2]);
    }
    return copies;
  }

  // The --secondary list: the copies in the order of the record's primary
  // disks, which is the plug-in's order, not the array's.
  std::string secondaryFor(const std::map<std::string, std::string>& copies) {
    if (!error.empty()) {
      return "";  // prepare failed: its error stays the one reported
    }
    std::ifstream in(record);
    const Json saved = Json::parse(in, nullptr, false);
    std::string secondary;
    if (saved.is_discarded() || !saved.contains("sub_objects")) {
      error = "no sub-objects in the record after prepare";
      return secondary;
    }
    for (const Json& primary : saved["sub_objects"]) {
      const auto copy = copies.find(primary.get<std::string>());
      if (copy == copies.end()) {
        error = "no copy of " + primary.get<std::string>() + " from the split";
        return secondary;
      }
      secondary += (secondary.empty() ? "" : ",") + copy->second;
    }
    return secondary;
  }

  // One backup cycle; the copy's LUNs go back to the array afterwards.
  void run() {
    if (!error.empty()) {
      return;
    }
    qzfi("A", {"prepare", "/dev/qz/dsk/dg1/vol1", "--record", record}, "prepare");
    std::vector<std::string> luns;
    const std::string secondary = secondaryFor(split(luns));
    qzfi("A", {"deport", "--record", record}, "deport");
    qzfi("B", {"import", "--record", record, "--secondary", secondary}, "import");
    qzfi("B", {"release", "--record", record}, "release");
    for (const std::string& lun : luns) {
      admin({"disk", "remove", lun});
    }
    unlink(record.c_str());
    ++totals.cycles;
  }

  std::string record;
  std::string error;
  Totals totals;

 private:
  Shape m_shape;
  std::string m_root;
  std::string m_records;
  std::string m_disks;
  std::map<std::string, std::string> m_firstPathOnA;
  std::string m_agentFolder;
  std::unique_ptr<CAgent> m_agentA;
  std::unique_ptr<CAgent> m_agentB;
};

// The runs' totals by name, for the side-by-side summary.
std::map<std::string, Totals>& results() {
  static std::map<std::string, Totals> kept;
  return kept;
}

// A cycle's first run warms the agents (and the page cache); the measured
// cycles follow in the same simulation.
void runCycles(benchmark::State& state, const Shape& shape, const std::string& name) {
  Cycle cycle(shape);
  cycle.run();
  cycle.totals = Totals();
  for (auto _ : state) {
    cycle.run();
    if (!cycle.error.empty()) {
      state.SkipWithError(cycle.error.c_str());
      return;
    }
  }
  const Totals& t = cycle.totals;
  const double cycles = std::max(1, t.cycles);
  auto perCycle = [cycles](double seconds) { return seconds / cycles * 1000; };
  state.counters["wall_ms"] = perCycle(t.qzfi + t.split);
  state.counters["split_ms"] = perCycle(t.split);
  state.counters["exec_ms"] = perCycle(t.exec);
  state.counters["tools_ms"] = perCycle(t.tools);
  state.counters["own_ms"] = perCycle(t.own());
  state.counters["own_per_disk_ms"] = perCycle(t.own()) / shape.disks;
  state.counters["runs"] = static_cast<double>(t.runs) / cycles;
  if (shape.mode != Mode::oneshot) {
    state.counters["agent_cpu_ms"] = perCycle(t.agentCpu);
    state.counters["cpu_per_disk_ms"] = perCycle(t.agentCpu) / shape.disks;
    state.counters["agents_peak_rss_mb"] = cycle.agentPeakResident() / (1 << 20);
  }
  state.counters["record_kb"] = t.recordBytes / 1024;
  results()[name] = t;
}

void BM_BackupCycle(benchmark::State& state) {
  const Mode mode = static_cast<Mode>(state.range(0));
  state.SetLabel(nameOf(mode));
  runCycles(state, {2, 1, mode}, nameOf(mode));
}
BENCHMARK(BM_BackupCycle)
    ->ArgName("mode")
    ->Arg(static_cast<int>(Mode::oneshot))
    ->Arg(static_cast<int>(Mode::agents))
    ->Arg(static_cast<int>(Mode::clients))
    ->Unit(benchmark::kMillisecond)
    ->Iterations(5);

void BM_Scale(benchmark::State& state) {
  const int disks = static_cast<int>(state.range(0));
  const int volumes = static_cast<int>(state.range(1));
  runCycles(state, {disks, volumes, Mode::agents},
            "scale " + std::to_string(disks) + "x" + std::to_string(volumes));
}
BENCHMARK(BM_Scale)
    ->ArgNames({"disks", "volumes"})
    ->Args({2, 1})
    ->Args({32, 1})
    ->Args({128, 1})
    ->Args({512, 1})
    ->Args({1024, 1})
    ->Args({128, 32})
    ->Args({128, 256})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

// One-shot and agents side by side, against the target.
void printSummary() {
  const auto& kept = results();
  const auto oneShot = kept.find("oneshot");
  const auto agents = kept.find("agents");
  if (oneShot == kept.end() || agents == kept.end()) {
    return;
  }
  auto ownMs = [](const Totals& t) { return t.own() / std::max(1, t.cycles) * 1000; };
  const double alone = ownMs(oneShot->second);
  const double served = ownMs(agents->second);
  const bool met = served <= 10 && served * 4 <= alone;
  std::printf(
      "\nframework and plug-in own time per cycle: one-shot %.1f ms, through agents %.1f ms "
      "(%.0f %% of one-shot); target at most 10 ms and at most 25 %%: %s\n",
      alone, served, alone > 0 ? served / alone * 100 : 0, met ? "met" : "NOT met");
  const auto clients = kept.find("clients");
  if (clients != kept.end()) {
    std::printf("through agents with a qzfi --agent process per command: %.1f ms\n",
                ownMs(clients->second));
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 2 && strcmp(argv[1], kTimedOption) == 0) {
    return timedMain(argv + 2);
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  printSummary();
  benchmark::Shutdown();
  return 0;
}
