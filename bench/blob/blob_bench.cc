// Blob writer and reader of the node private data on a large node, and the
// text helpers on the lines such a node holds. Prints MB/s; the round trip
// also reports its peak memory as a multiple of the blob's size.
#include <malloc.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "node.h"
#include "support/qzvm_support.h"

// While counting is on, every allocation of the process is counted, so that
// the peak memory of a round trip (C++ objects and the framework's buffers)
// is measured; it is off while timing.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* pointer);
}

namespace {

std::atomic<bool> g_counting{false};
std::atomic<long> g_live{0};
std::atomic<long> g_peak{0};

void* counted(void* pointer) {
  if (pointer != nullptr && g_counting.load(std::memory_order_relaxed)) {
    const long live = g_live += static_cast<long>(malloc_usable_size(pointer));
    long peak = g_peak.load(std::memory_order_relaxed);
    while (live > peak && !g_peak.compare_exchange_weak(peak, live)) {
    }
  }
  return pointer;
}

void uncounted(void* pointer) {
  if (pointer != nullptr && g_counting.load(std::memory_order_relaxed)) {
    g_live -= static_cast<long>(malloc_usable_size(pointer));
  }
}

}  // namespace

extern "C" {
void* malloc(size_t size) {
  return counted(__libc_malloc(size));
}
void* calloc(size_t count, size_t size) {
  return counted(__libc_calloc(count, size));
}
void* realloc(void* pointer, size_t size) {
  uncounted(pointer);
  return counted(__libc_realloc(pointer, size));
}
void* memalign(size_t alignment, size_t size) {
  return counted(__libc_memalign(alignment, size));
}
void* aligned_alloc(size_t alignment, size_t size) {
  return memalign(alignment, size);
}
int posix_memalign(void** out, size_t alignment, size_t size) {
  *out = memalign(alignment, size);
  return *out != nullptr ? 0 : 12;
}
void free(void* pointer) {
  uncounted(pointer);
  __libc_free(pointer);
}
}

namespace {

const int kDisks = 256;
const int kPrivateLines = 40;
const int kConfigLines = 1000000;

std::string diskName(int i) {
  return "qzarr0_" + std::to_string(i);
}

// A qzdisk list listing of one disk, as the tools print it.
std::vector<std::string> privateRegion(int disk) {
  const std::string name = diskName(disk);
  std::vector<std::string> lines{
      "Device:    " + name + "\n",
      "devicetag: " + name + "\n",
      "type:      auto\n",
      "hostid:    hostA\n",
      "disk:      name=dg1" + std::to_string(disk) + " id=1700000000.1" + std::to_string(disk) +
          ".hostA\n",
      "group:     name=dg1 id=1700000000.10.hostA\n",
      "info:      format=cdsdisk,privoffset=256,pubslice=3,privslice=3\n",
      "flags:     online ready private autoconfig autoimport imported\n",
      "pubpaths:  block=/dev/qz/dmp/" + name + "s3 char=/dev/qz/rdmp/" + name + "s3\n",
      "privpaths: block=/dev/qz/dmp/" + name + "s3 char=/dev/qz/rdmp/" + name + "s3\n",
      "version:   3.1\n",
      "iosize:    min=512 (bytes) max=1024 (blocks)\n",
      "public:    slice=3 offset=65792 len=2031360 disk_offset=0\n",
      "private:   slice=3 offset=256 len=65536 disk_offset=0\n",
      "update:    time=1700000000 seqno=0.12\n",
      "ssb:       actual_seqno=0.0\n",
      "headers:   0 240\n",
      "configs:   count=1 len=51360\n",
      "logs:      count=1 len=4096\n",
      "Defined regions:\n"};
  while (lines.size() < kPrivateLines) {
    lines.push_back(" config   priv 000048-000239[000192]: copy=01 offset=000000 enabled\n");
  }
  return lines;
}

// A qzprint -m dump: volume, plex and subdisk records with their attributes.
std::vector<std::string> configurationDump() {
  static const char* const kAttributes[] = {"\tuse_type=fsgen\n",
                                            "\tguid={4f2c9a10-1d2e-11ee-8000-00aa00bb00cc}\n",
                                            "\tlen=2097152\n",
                                            "\tlog_type=DCM\n",
                                            "\tstate=\"ACTIVE\n",
                                            "\tkstate=ENABLED\n",
                                            "\tdm_name=dg10\n",
                                            "\tda_name=qzarr0_10\n",
                                            "\tpath=/dev/qz/dmp/qzarr0_10s3\n",
                                            "\tcomment=\"\n"};
  std::vector<std::string> lines;
  lines.reserve(kConfigLines);
  for (int record = 0; static_cast<int>(lines.size()) < kConfigLines; ++record) {
    static const char* const kKinds[] = {"vol", "plex", "sd"};
    lines.push_back(std::string(kKinds[record % 3]) + " obj" + std::to_string(record) + "\n");
    for (const char* attribute : kAttributes) {
      if (static_cast<int>(lines.size()) < kConfigLines) {
        lines.push_back(attribute);
      }
    }
  }
  return lines;
}

CQzVMData& largeNode() {
  static CQzVMData* node = [] {
    auto* data = new CQzVMData(nullptr, false);
    std::vector<std::string> disks;
    std::vector<std::string> names;
    std::vector<std::vector<std::string>> listings;
    for (int i = 0; i < kDisks; ++i) {
      disks.push_back(diskName(i));
      names.push_back("dg1" + std::to_string(i));
      listings.push_back(privateRegion(i));
      data->setDiskDMPMap("sd" + std::to_string(i), diskName(i));
    }
    data->setVolPrivInfoInPD(disks, names, listings);
    data->setDGConfgiInPD("dg1", configurationDump());
    data->vList() = {"vol01", "vol02"};
    data->setDGId("1700000000.10.hostA");
    data->setOwnerUidGid(1001, 6);
    return data;
  }();
  return *node;
}

struct Blob : qfi_blob {
  Blob() : qfi_blob{} {}
  ~Blob() {
    if (data != nullptr) {
      qzfi_free_buf(data, len);
    }
  }
};

void BM_CreateBlob(benchmark::State& state) {
  CQzVMData& node = largeNode();
  size_t bytes = 0;
  for (auto _ : state) {
    Blob blob;
    node.createBlob(&blob);
    bytes = blob.len;
  }
  state.SetBytesProcessed(static_cast<int64_t>(bytes) * state.iterations());
}
BENCHMARK(BM_CreateBlob)->Unit(benchmark::kMillisecond);

void BM_ExtractFromBlob(benchmark::State& state) {
  Blob blob;
  largeNode().createBlob(&blob);
  for (auto _ : state) {
    auto copy = std::make_unique<CQzVMData>(nullptr, true);
    benchmark::DoNotOptimize(copy->extractFromBlob(&blob));
    state.PauseTiming();  // the copy's destruction is not part of reading
    copy.reset();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<int64_t>(blob.len) * state.iterations());
}
BENCHMARK(BM_ExtractFromBlob)->Unit(benchmark::kMillisecond);

// Bytes allocated at the peak of one round trip beyond what was live before,
// and the blob's size.
std::pair<long, size_t> roundTripPeak(CQzVMData& node) {
  g_live = 0;
  g_peak = 0;
  g_counting = true;
  auto blob = std::make_unique<Blob>();
  node.createBlob(blob.get());
  auto copy = std::make_unique<CQzVMData>(nullptr, true);
  copy->extractFromBlob(blob.get());
  g_counting = false;
  return {g_peak.load(), blob->len};
}

void BM_RoundTrip(benchmark::State& state) {
  CQzVMData& node = largeNode();
  const auto [peak, bytes] = roundTripPeak(node);
  for (auto _ : state) {
    auto blob = std::make_unique<Blob>();
    node.createBlob(blob.get());
    auto copy = std::make_unique<CQzVMData>(nullptr, true);
    benchmark::DoNotOptimize(copy->extractFromBlob(blob.get()));
    state.PauseTiming();  // releasing both is not part of the round trip
    copy.reset();
    blob.reset();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<int64_t>(bytes) * state.iterations());
  state.counters["blob_MB"] = static_cast<double>(bytes) / 1e6;
  state.counters["peak_MB"] = static_cast<double>(peak) / 1e6;
  state.counters["peak_per_blob"] = static_cast<double>(peak) / static_cast<double>(bytes);
}
BENCHMARK(BM_RoundTrip)->Unit(benchmark::kMillisecond)->UseRealTime();

const std::vector<std::string>& sampleLines() {
  static const std::vector<std::string> lines = [] {
    std::vector<std::string> all = privateRegion(7);
    std::vector<std::string> dump = configurationDump();
    all.insert(all.end(), dump.begin(), dump.begin() + 10000);
    return all;
  }();
  return lines;
}

size_t totalSize(const std::vector<std::string>& lines) {
  size_t size = 0;
  for (const std::string& line : lines) {
    size += line.size();
  }
  return size;
}

// Runs helper on every sample line; bytes processed are the lines' bytes.
template <class Helper>
void overSampleLines(benchmark::State& state, Helper helper) {
  const auto& lines = sampleLines();
  for (auto _ : state) {
    for (const std::string& line : lines) {
      benchmark::DoNotOptimize(helper(line));
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(totalSize(lines)) * state.iterations());
}

void BM_GetToken(benchmark::State& state) {
  overSampleLines(state, [](const std::string& line) { return getToken(line, 1); });
}
BENCHMARK(BM_GetToken);

void BM_GetValForKey(benchmark::State& state) {
  overSampleLines(state, [](const std::string& line) { return getValForKey(line, "len"); });
}
BENCHMARK(BM_GetValForKey);

void BM_HasVal(benchmark::State& state) {
  overSampleLines(state, [](const std::string& line) {
    return hasPathVal(line) || hasDAName(line) || hasDMName(line);
  });
}
BENCHMARK(BM_HasVal);

void BM_GetMetaValForkey(benchmark::State& state) {
  const std::vector<std::string> listing = privateRegion(7);
  static const char* const kKeys[] = {"Device:", "disk:",    "group:",   "type:", "info:",
                                      "public:", "private:", "configs:", "logs:", "flags:"};
  for (auto _ : state) {
    for (const char* key : kKeys) {
      std::string value;
      benchmark::DoNotOptimize(getMetaValForkey(listing, key, value));
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(totalSize(listing)) * 10 * state.iterations());
}
BENCHMARK(BM_GetMetaValForkey);

void BM_MultiLinesToVector(benchmark::State& state) {
  std::string text;
  for (const std::string& line : sampleLines()) {
    text += line;
  }
  for (auto _ : state) {
    std::vector<std::string> lines;
    multiLinesToVector(text, lines);
    benchmark::DoNotOptimize(lines.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(text.size()) * state.iterations());
}
BENCHMARK(BM_MultiLinesToVector);

}  // namespace

BENCHMARK_MAIN();
