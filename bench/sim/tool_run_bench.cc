// One tool run as a flow of the plug-in pays it: fork, exec of qzsim under
// the tool's name, one database transaction, exit. Reports the median of
// several repetitions beside /bin/true started the same way in the same
// run, the floor a process start sets: a listing (qzdg list) should cost at
// most twice that, a changing run (qzvol start) at most three times.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <string>

#include "fsutil.h"
#include "qzsim/sandbox.h"

namespace {

struct Simulation {
  std::string root;
  Simulation() {
    char tmpl[] = "/tmp/qzsim-bench-XXXXXX";
    root = mkdtemp(tmpl);
    qzsim::simAdmin(root, {"init"});
    qzsim::simAdmin(root, {"host", "add", "A"});
    qzsim::simAdmin(root, {"disk", "add", "--count", "4", "--hosts", "A", "--paths", "2"});
    qzsim::simTool(root, "A", "qzdisk scandisks");
    for (const char* d : {"qzarr0_0", "qzarr0_1", "qzarr0_2", "qzarr0_3"})
      qzsim::simTool(root, "A", std::string("qzdisk -f init ") + d + " type=auto");
    qzsim::simTool(root, "A", "qzdg init dg1 qzarr0_0 qzarr0_1 qzarr0_2 qzarr0_3");
    for (int i = 0; i < 8; ++i)
      qzsim::simTool(root, "A",
                     "qzassist -g dg1 make vol" + std::to_string(i) + " 100m logtype=dco");
  }
  ~Simulation() { qzsim::removeTree(root); }
};

Simulation& sim() {
  static Simulation s;
  return s;
}

void runTool(benchmark::State& state, const std::string& cmd) {
  const std::string& root = sim().root;
  for (auto _ : state) {
    qzsim::CommandResult r = qzsim::simTool(root, "A", cmd);
    if (r.status != 0)
      state.SkipWithError(r.err.c_str());
  }
}

void BM_BinTrue(benchmark::State& state) {
  sim();
  for (auto _ : state) {
    qzsim::CommandResult r = qzsim::runCommand({"/bin/true"});
    if (r.status != 0)
      state.SkipWithError("/bin/true failed");
  }
}
void BM_QzdgList(benchmark::State& state) {
  runTool(state, "qzdg  list ");
}
void BM_QzprintDump(benchmark::State& state) {
  runTool(state, "qzprint  -vxpsc  -g dg1  -m ");
}
void BM_QzdiskListDisk(benchmark::State& state) {
  runTool(state, "qzdisk  list qzarr0_1");
}
// A start that changes the model, and so makes the host's nodes again: the
// volume is stopped, untimed, before each.
void BM_QzvolStart(benchmark::State& state) {
  const std::string& root = sim().root;
  for (auto _ : state) {
    state.PauseTiming();
    qzsim::simTool(root, "A", "qzvol  -g dg1  stop vol3");
    state.ResumeTiming();
    qzsim::CommandResult r = qzsim::simTool(root, "A", "qzvol  -g dg1  start vol3");
    if (r.status != 0)
      state.SkipWithError(r.err.c_str());
  }
}

}  // namespace

BENCHMARK(BM_BinTrue)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(0.3)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_QzdgList)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(0.3)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_QzprintDump)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(0.3)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_QzdiskListDisk)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(0.3)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_QzvolStart)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(0.3)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

BENCHMARK_MAIN();
