#include "text.h"
#include "tools.h"

namespace qzsim {

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
