// The qzsim multi-call program: called under a tool's name it is that tool,
// called as qzsim it is the administration front end.
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "admin.h"
#include "run.h"

namespace {

std::string selfPath() {
  char buf[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "qzsim";
}

std::string baseName(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string env(const char* name) {
  const char* v = getenv(name);
  return v ? v : "";
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv, argv + argc);
  std::string name = baseName(args.empty() ? "qzsim" : args[0]);
  if (name == "qzsim" || name.compare(0, 6, "qzsim-") == 0)
    return qzsim::adminMain(args, selfPath());
  std::string host = env("QZSIM_HOST");
  if (host.empty()) {
    std::cerr << qzsim::errorLine(name, 2, "QZSIM_HOST is not set");
    return 2;
  }
  qzsim::RunResult r =
      qzsim::runTool(env("QZSIM_ROOT"), host, name, {args.begin() + 1, args.end()});
  fwrite(r.out.data(), 1, r.out.size(), stdout);
  fwrite(r.err.data(), 1, r.err.size(), stderr);
  if (r.killCaller) {
    fflush(stdout);
    fflush(stderr);
    qzsim::killCaller();
  }
  if (r.hang) {
    // A tool that hangs: the database is closed, the output is out, and the
    // process waits until whoever ran it gives up and kills it.
    fflush(stdout);
    fflush(stderr);
    for (;;) pause();
  }
  return r.status;
}
