// The simulated volume-manager tools. Each reads its arguments (without the
// tool name), changes the model and writes its output into the Sim.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "sim.h"

namespace qzsim {

using Args = std::vector<std::string>;
using ToolFn = void (*)(Sim&, const Args&);

// Options as the tools take them: "-g DG", combined letters "-vpsc", and the
// remaining words in order.
struct Opts {
  std::map<char, std::string> opt;
  std::vector<std::string> words;
  bool has(char c) const { return opt.count(c) > 0; }
  std::string get(char c) const;
};
// withValue lists the letters that take a value.
Opts parseOpts(const Args& args, const std::string& withValue);

// Looks a tool up by the name it was called under; nullptr when unknown.
ToolFn findTool(const std::string& name);
std::vector<std::string> toolNames();

// Why a private region's geometry cannot be, or "": regions that overlap or
// do not fit on the disk, copies and logs that do not fit in the private
// region. Every value must be within 0 and the disk's size (copies 0 to 32).
std::string geometryProblem(const Disk& d);
// Shared by qzdisk init and qzdisksetup: writes a new private region.
void initDisk(Sim& s, int64_t disk, const std::map<std::string, std::string>& attrs, bool force);

void toolQzdg(Sim& s, const Args& a);
void toolQzdisk(Sim& s, const Args& a);
void toolQzprint(Sim& s, const Args& a);
void toolQzvol(Sim& s, const Args& a);
void toolQzinfo(Sim& s, const Args& a);
void toolQzassist(Sim& s, const Args& a);
void toolQzvset(Sim& s, const Args& a);
void toolQzmake(Sim& s, const Args& a);
void toolQzdmpadm(Sim& s, const Args& a);
void toolQzdisksetup(Sim& s, const Args& a);
void toolQzdiskunsetup(Sim& s, const Args& a);
void toolQzcdsconvert(Sim& s, const Args& a);
void toolRpm(Sim& s, const Args& a);
void toolParted(Sim& s, const Args& a);

// Whether a volume or volume set is in use on this host: held (qzsim volume
// hold), or one of its device nodes open in a process, as a real kernel
// counts the opens of a volume.
bool inUse(Sim& s, const Sim::Group& g, const std::string& obj);

// Volume helpers shared by qzvol, qzvset and qzassist.
void startVolume(Sim& s, Sim::Group& g, const std::string& vol, const std::string& useType);
void stopVolume(Sim& s, Sim::Group& g, const std::string& vol);

}  // namespace qzsim
