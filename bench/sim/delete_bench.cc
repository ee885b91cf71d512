// One write of "1" to /sys/block/NAME/device/delete in a host's sandbox, on
// hosts that see 16, 128 and 1,024 disks (two paths each; the second path of
// a disk is deleted, so the disk stays). The write returns once the path is
// gone and the host's device nodes show it: its cost should not grow with
// the host's disks. Beside it, a lookup of another path's delete file.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "fsutil.h"
#include "qzsim/sandbox.h"

namespace {

struct Simulation {
  std::string root;
  std::vector<std::string> firstPaths, secondPaths;  // per disk
  size_t next = 0;

  explicit Simulation(int disks) {
    char tmpl[] = "/tmp/qzsim-delete-bench-XXXXXX";
    root = mkdtemp(tmpl);
    qzsim::simAdmin(root, {"init"});
    qzsim::simAdmin(root, {"host", "add", "A"});
    std::string added;                             // "lun1 qzarr0_0 A=sdb,sdc" per disk
    for (int left = disks; left > 0; left -= 512)  // at most 1,000 a call
      added += qzsim::simAdmin(root, {"disk", "add", "--count", std::to_string(std::min(left, 512)),
                                      "--hosts", "A", "--paths", "2"})
                   .out;
    std::istringstream in(added);
    std::string line;
    while (std::getline(in, line)) {
      size_t eq = line.find("A="), comma = line.find(',', eq);
      if (eq == std::string::npos || comma == std::string::npos)
        continue;
      firstPaths.push_back(line.substr(eq + 2, comma - eq - 2));
      secondPaths.push_back(line.substr(comma + 1));
    }
    qzsim::simTool(root, "A", "qzdisk scandisks");
  }
  ~Simulation() { qzsim::removeTree(root); }
};

std::map<int, std::unique_ptr<Simulation>>& sims() {
  static std::map<int, std::unique_ptr<Simulation>> s;
  return s;
}

Simulation& sim(benchmark::State& state) {
  int disks = static_cast<int>(state.range(0));
  auto& s = sims()[disks];
  if (!s) {
    s = std::make_unique<Simulation>(disks);
    std::string error;
    if (!qzsim::actAsHost(s->root, "A", &error))
      state.SkipWithError(error.c_str());
  } else {
    std::string error;
    if (!qzsim::actAsHost(s->root, "A", &error))
      state.SkipWithError(error.c_str());
  }
  return *s;
}

bool deletePath(const std::string& name) {
  std::string path = "/sys/block/" + name + "/device/delete";
  int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  if (fd < 0)
    return false;
  bool ok = write(fd, "1", 1) == 1;
  return close(fd) == 0 && ok;
}

void BM_Delete(benchmark::State& state) {
  Simulation& s = sim(state);
  if (s.next == 0 && !s.secondPaths.empty())  // the first brings the host's nodes up to date
    deletePath(s.secondPaths[s.next++]);
  for (auto _ : state) {
    if (s.next >= s.secondPaths.size()) {
      state.SkipWithError("no path left to delete");
      break;
    }
    if (!deletePath(s.secondPaths[s.next++]))
      state.SkipWithError("the delete failed");
  }
  state.counters["disks"] = static_cast<double>(s.firstPaths.size());
}

void BM_LookupOther(benchmark::State& state) {
  Simulation& s = sim(state);
  std::string path = "/sys/block/" + s.firstPaths.back() + "/device/delete";
  for (auto _ : state) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
      state.SkipWithError("the lookup failed");
  }
}

}  // namespace

BENCHMARK(BM_Delete)
    ->Arg(16)
    ->Arg(128)
    ->Arg(1024)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(12);
BENCHMARK(BM_LookupOther)
    ->Arg(16)
    ->Arg(1024)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime()
    ->MinTime(0.2);

int main(int argc, char** argv) {
  std::string error;
  if (!qzsim::enterNamespace(&error)) {
    fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  for (auto& s : sims()) s.second.reset();
  qzsim::leaveHost();
  return 0;
}
