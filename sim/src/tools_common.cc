#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string>
#include <utility>

#include "fsutil.h"
#include "text.h"
#include "tools.h"

namespace qzsim {

namespace {

using FileId = std::pair<dev_t, ino_t>;

// The host's device nodes of a volume or volume set, as files.
std::set<FileId> nodeFiles(Sim& s, const std::string& dg, const std::string& obj) {
  std::set<FileId> files;
  for (const char* kind : {"/dsk/", "/rdsk/"}) {
    struct stat st;
    if (stat((devQzDir(s.root, s.host.name) + kind + dg + "/" + obj).c_str(), &st) == 0)
      files.insert({st.st_dev, st.st_ino});
  }
  return files;
}

// Whether an open file lies under /sys, read from its link without
// following it: a stat there would ask the host's /sys/block server, which
// may itself be waiting for this run's transaction.
bool underSysfs(const std::string& fdLink) {
  char target[16];
  const ssize_t n = readlink(fdLink.c_str(), target, sizeof target);
  return n >= 5 && std::string(target, 5) == "/sys/";
}

// Whether any process has one of the files open. A process whose folder
// cannot be read (another user's, or one that just ended) is passed over.
bool openAnywhere(const std::set<FileId>& files) {
  if (files.empty())
    return false;
  for (const std::string& pid : listDir("/proc")) {
    if (pid.find_first_not_of("0123456789") != std::string::npos)
      continue;
    const std::string fdDir = "/proc/" + pid + "/fd/";
    for (const std::string& fd : listDir(fdDir)) {
      const std::string link = fdDir + fd;
      struct stat st;
      if (!underSysfs(link) && stat(link.c_str(), &st) == 0 && files.count({st.st_dev, st.st_ino}))
        return true;
    }
  }
  return false;
}

}  // namespace

bool inUse(Sim& s, const Sim::Group& g, const std::string& obj) {
  return s.isHeld(g.dgid, obj) || openAnywhere(nodeFiles(s, g.cfg.dg.name, obj));
}

std::string Opts::get(char c) const {
  auto it = opt.find(c);
  return it == opt.end() ? "" : it->second;
}

Opts parseOpts(const Args& args, const std::string& withValue) {
  Opts o;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& w = args[i];
    if (w.size() < 2 || w[0] != '-') {
      o.words.push_back(w);
      continue;
    }
    for (size_t k = 1; k < w.size(); ++k) {
      char c = w[k];
      if (withValue.find(c) == std::string::npos) {
        o.opt[c] = "";
        continue;
      }
      if (k + 1 < w.size()) {
        o.opt[c] = w.substr(k + 1);
      } else if (i + 1 < args.size()) {
        o.opt[c] = args[++i];
      } else {
        fail(kUsage, std::string("option -") + c + " needs a value");
      }
      break;
    }
  }
  return o;
}

namespace {

struct ToolEntry {
  const char* name;
  ToolFn fn;
};

const ToolEntry kTools[] = {
    {"qzdg", toolQzdg},
    {"qzdisk", toolQzdisk},
    {"qzprint", toolQzprint},
    {"qzvol", toolQzvol},
    {"qzinfo", toolQzinfo},
    {"qzassist", toolQzassist},
    {"qzvset", toolQzvset},
    {"qzmake", toolQzmake},
    {"qzdmpadm", toolQzdmpadm},
    {"qzdisksetup", toolQzdisksetup},
    {"qzdiskunsetup", toolQzdiskunsetup},
    {"qzcdsconvert", toolQzcdsconvert},
    {"rpm", toolRpm},
    {"parted", toolParted},
};

}  // namespace

ToolFn findTool(const std::string& name) {
  for (const auto& t : kTools)
    if (name == t.name)
      return t.fn;
  return nullptr;
}

std::vector<std::string> toolNames() {
  std::vector<std::string> names;
  for (const auto& t : kTools) names.push_back(t.name);
  return names;
}

}  // namespace qzsim
