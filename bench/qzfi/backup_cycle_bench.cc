// A whole backup cycle through qzfi on the simulator, as the main job runs
// it: prepare on host A, the array's split to host B, deport on A, import on
// B, release on B. Per cycle it reports the tool runs of each qzfi command
// and where the cycle's wall time goes:
//   wall_ms      the cycle: the qzfi processes and the split;
//   qzfi_ms      the qzfi processes from start to exit, timed inside the
//                host's sandbox (the sandbox that the simulator sets up
//                around a host's command is the simulator's, not qzfi's);
//   split_ms     the array's split;
//   exec_ms      the tool runs as the framework's pipe runner times them,
//                from spawning the shell to the tool's exit;
//   tools_ms     the tools' own time, from the simulator's log;
//   plugin_pct   (qzfi - exec) / wall: the plug-in's and qzfi's own work,
//                loading and starting the plug-in included;
//   load_pct     of that, starting a process with the framework's shared
//                libraries (ACE, ICU, the C++ library), the time of
//                "qzfi --version" per command: no code of the plug-in runs;
//   start_pct    (exec - tools) / wall: starting and ending the tools'
//                processes (shell, program load, database commit);
//   share_pct    (wall - tools - split) / wall: everything but the tools'
//                and the array's own work.
// Target: the plug-in and qzfi under 10 % of the wall time.
#include <benchmark/benchmark.h>
#include <errno.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

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
// state are dirty pages that the next fsync of the record has to write out
// (48 ms after a split of two 64 MB disks), whereas a real array copies
// inside itself and a volume manager's tools write their own metadata
// through. The record stays on the disk, with the syncs of a real backup.
std::string simulationFolder() {
  std::string folder = newFolder("/dev/shm/qzfi-bench-sim-XXXXXX");
  return folder.empty() ? newFolder("/tmp/qzfi-bench-sim-XXXXXX") : folder;
}

// One simulation with the source group of the main job.
class Cycle {
 public:
  Cycle() : m_root(simulationFolder()), m_records(newFolder("/tmp/qzfi-bench-XXXXXX")) {
    record = m_records + "/backup.json";
    if (m_root.empty() || m_records.empty()) {
      error = "no folder for the simulation or the record";
      return;
    }
    admin({"init"});
    admin({"host", "add", "A"});
    admin({"host", "add", "B"});
    const std::string disks =
        admin({"disk", "add", "--count", "2", "--hosts", "A", "--paths", "2", "--size", "64m"});
    tool("qzdisk scandisks");
    tool("qzdisk -f init qzarr0_0 type=auto");
    tool("qzdisk -f init qzarr0_1 type=auto");
    tool("qzdg init dg1 qzarr0_0 qzarr0_1");
    tool("qzassist -g dg1 make vol1 32m logtype=dco");
    admin({"volume", "write", "--host", "A", "dg1", "vol1", "--seed", "7"});
  }
  ~Cycle() {
    for (const std::string& folder : {m_root, m_records}) {
      if (!folder.empty()) {
        qzsim::removeTree(folder);
      }
    }
  }

  std::string admin(const std::vector<std::string>& args) {
    qzsim::CommandResult result = qzsim::simAdmin(m_root, args);
    if (result.status != 0) {
      error = "qzsim " + args[0] + ": " + result.err;
    }
    return result.out;
  }
  void tool(const std::string& line) {
    qzsim::CommandResult result = qzsim::simTool(m_root, "A", line);
    if (result.status != 0) {
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

  // What starting a process with the framework's libraries costs, without
  // the plug-in: the least of a few runs of qzfi --version.
  void measureLoad() {
    loadSeconds = 1e9;
    for (int i = 0; i < 5; ++i) {
      double seconds = 0;
      sandboxed("A", {QZFI_BINARY, "--version"}, seconds);
      loadSeconds = std::min(loadSeconds, seconds);
    }
  }

  // qzfi on host, measured; its --json document.
  Json qzfi(const std::string& host, std::vector<std::string> args, const std::string& step) {
    args.insert(args.begin(), {QZFI_BINARY, "--json"});
    const long firstRun = std::stol(admin({"log", "--total"}));
    double seconds = 0;
    qzsim::CommandResult result = sandboxed(host, args, seconds);
    if (result.status != 0) {
      error = step + ": " + result.out + result.err;
      return Json::object();
    }
    Json json = Json::parse(result.out);
    qzfiSeconds += seconds;
    loadedSeconds += loadSeconds;
    execSeconds += json["tool_seconds"].get<double>();
    toolRuns[step] = json["tool_runs"].get<long>();
    toolSeconds += toolTimeSince(firstRun);
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

  // The disks of the record's sub-objects, split to B; the copies' first
  // paths as a --secondary list.
  std::string split() {
    const Clock::time_point start = Clock::now();
    std::string out = admin(
        {"array", "split", "--disks", "qzarr0_0,qzarr0_1", "--from-host", "A", "--to-host", "B"});
    splitSeconds += std::chrono::duration<double>(Clock::now() - start).count();
    std::string secondary;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
      const std::vector<std::string> words = wordsOf(line);
      if (words.size() < 3) {
        continue;
      }
      const std::string paths = words[2].substr(words[2].find('=') + 1);
      secondary += (secondary.empty() ? "/dev/" : ",/dev/") + paths.substr(0, paths.find(','));
    }
    return secondary;
  }

  void run() {
    if (!error.empty()) {
      return;
    }
    measureLoad();
    qzfi("A", {"prepare", "/dev/qz/dsk/dg1/vol1", "--record", record}, "prepare");
    const std::string secondary = split();
    qzfi("A", {"deport", "--record", record}, "deport");
    qzfi("B", {"import", "--record", record, "--secondary", secondary}, "import");
    qzfi("B", {"release", "--record", record}, "release");
  }

  std::string record;
  std::string error;
  double loadSeconds = 0;    // one start of qzfi --version
  double loadedSeconds = 0;  // that, once per qzfi command
  double qzfiSeconds = 0;
  double splitSeconds = 0;
  double execSeconds = 0;
  double toolSeconds = 0;
  std::map<std::string, long> toolRuns;

 private:
  std::string m_root;
  std::string m_records;
};

void BM_BackupCycle(benchmark::State& state) {
  double qzfi = 0;
  double split = 0;
  double load = 0;
  double exec = 0;
  double tools = 0;
  std::map<std::string, long> runs;
  for (auto _ : state) {
    state.PauseTiming();
    Cycle cycle;
    state.ResumeTiming();
    cycle.run();
    if (!cycle.error.empty()) {
      state.SkipWithError(cycle.error.c_str());
      return;
    }
    qzfi += cycle.qzfiSeconds;
    split += cycle.splitSeconds;
    load += cycle.loadedSeconds;
    exec += cycle.execSeconds;
    tools += cycle.toolSeconds;
    runs = cycle.toolRuns;
  }
  const double wall = qzfi + split;
  const double cycles = static_cast<double>(state.iterations());
  for (const auto& [step, count] : runs) {
    state.counters["runs_" + step] = static_cast<double>(count);
  }
  auto percentOfWall = [wall](double part) { return wall > 0 ? part / wall * 100 : 0; };
  auto perCycle = [cycles](double seconds) { return seconds / cycles * 1000; };
  state.counters["wall_ms"] = perCycle(wall);
  state.counters["qzfi_ms"] = perCycle(qzfi);
  state.counters["split_ms"] = perCycle(split);
  state.counters["exec_ms"] = perCycle(exec);
  state.counters["tools_ms"] = perCycle(tools);
  state.counters["plugin_pct"] = percentOfWall(qzfi - exec);
  state.counters["load_pct"] = percentOfWall(load);
  state.counters["start_pct"] = percentOfWall(exec - tools);
  state.counters["share_pct"] = percentOfWall(wall - tools - split);
}

BENCHMARK(BM_BackupCycle)->Unit(benchmark::kMillisecond)->Iterations(5);

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
  benchmark::Shutdown();
  return 0;
}
