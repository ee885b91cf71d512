// Throughput of CQzVMSupport::reconfig on a generated 1,000,000-line dump,
// reported in MB/s beside sed doing one comparable substitution per line on
// the same file; each is timed at its best of a few runs, so that a busy
// machine disturbs the comparison less. Usage: bench_reconfig [lines] [folder]
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "support/qzvm_support.h"

namespace {

const int kDisks = 8;
const int kRuns = 5;

std::string diskName(int i) {
  return "sd" + std::string(1, static_cast<char>('b' + i));
}

// A disk group's dump: dg and dm records first, then volumes with their
// plexes and subdisks, each record followed by its attribute lines.
long long writeDump(const std::string& path, long lines) {
  std::ofstream out(path);
  long written = 0;
  auto line = [&](const std::string& text) {
    out << text << '\n';
    ++written;
  };
  line("dg dg1");
  line("\tguid={0000-dg}");
  line("\tcomment=bench");
  for (int d = 0; d < kDisks; ++d) {
    line("dm disk0" + std::to_string(d));
    line("\tguid={0000-dm" + std::to_string(d) + "}");
    line("\tda_name=qzarr0_" + std::to_string(d));
    line("\tlast_da_name=qzarr0_" + std::to_string(d));
  }
  for (long v = 0; written < lines; ++v) {
    int d = static_cast<int>(v % kDisks);
    std::string vol = "vol" + std::to_string(v);
    line("vol " + vol);
    line("\tguid={" + std::to_string(v) + "-v}");
    line("\tuse_type=fsgen");
    line("\tlength=204800");
    line("plex " + vol + "-01");
    line("\tguid={" + std::to_string(v) + "-p}");
    line("\tlayout=CONCAT");
    line("sd disk0" + std::to_string(d) + "-" + std::to_string(v));
    line("\tguid={" + std::to_string(v) + "-s}");
    line("\tdm_name=disk0" + std::to_string(d));
    line("\tda_name=" + diskName(d));
    line("\tpath=/dev/qz/dmp/" + diskName(d) + "3");
    line("\tdm_offset=" + std::to_string(v * 2048));
  }
  out.close();
  struct stat info {};
  stat(path.c_str(), &info);
  return info.st_size;
}

// The shortest of kRuns runs of work, in seconds.
template <typename Work>
double bestSeconds(Work work) {
  double best = 0;
  for (int run = 0; run < kRuns; ++run) {
    const auto start = std::chrono::steady_clock::now();
    work();
    const double taken =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    best = run == 0 || taken < best ? taken : best;
  }
  return best;
}

}  // namespace

int main(int argc, char** argv) {
  long lines = argc > 1 ? std::atol(argv[1]) : 1000000;
  std::string folder = argc > 2 ? argv[2] : "";
  if (folder.empty()) {
    char scratch[] = "/tmp/qzvmfi_bench_XXXXXX";
    if (mkdtemp(scratch) == nullptr) {
      std::perror("mkdtemp");
      return 1;
    }
    folder = scratch;
  }
  setenv("QZFI_CONFIG_DIR", folder.c_str(), 1);
  const std::string in = folder + "/dump";
  const std::string out = folder + "/replay";
  const std::string sedOut = folder + "/sed";
  const double mb = writeDump(in, lines) / 1e6;

  std::vector<std::string> priDisks, altDisks, priDMs, altDMs;
  for (int d = 0; d < kDisks; ++d) {
    priDisks.push_back(diskName(d));
    altDisks.push_back("sd" + std::string(1, static_cast<char>('r' + d)));
    priDMs.push_back("disk0" + std::to_string(d));
    altDMs.push_back("disk0" + std::to_string(d));
  }
  CQzVMSupport support;
  int status = 0;
  const double reconfigSeconds = bestSeconds([&] {
    status |= support.reconfig(in, "dg1", "dg9", priDisks, altDisks, priDMs, altDMs, out);
  });

  const std::string sed = "sed 's/sdb/sdr/' '" + in + "' > '" + sedOut + "'";
  int sedStatus = 0;
  const double sedSeconds = bestSeconds([&] { sedStatus |= std::system(sed.c_str()); });

  std::printf("dump: %ld lines, %.1f MB\n", lines, mb);
  std::printf("reconfig: %.1f MB/s (%.3f s, status %d)\n", mb / reconfigSeconds, reconfigSeconds,
              status);
  std::printf("sed:      %.1f MB/s (%.3f s, status %d)\n", mb / sedSeconds, sedSeconds, sedStatus);
  if (argc <= 2) {
    std::system(("rm -rf '" + folder + "'").c_str());
  }
  return status == 0 && reconfigSeconds <= sedSeconds ? 0 : 2;
}
