#include "run.h"

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>

#include "text.h"
#include "tools.h"

namespace qzsim {

namespace {

bool isQzvmTool(const std::string& tool) {
  return tool != "rpm" && tool != "parted";
}

struct KindName {
  FaultKind kind;
  const char* name;
};

const KindName kFaultKinds[] = {
    {FaultKind::kFail, "fail"}, {FaultKind::kAfter, "after"}, {FaultKind::kPartial, "partial"},
    {FaultKind::kHang, "hang"}, {FaultKind::kKill, "kill"},
};

// The fault that fires on a run: how, and what it prints.
struct Fault {
  FaultKind kind = FaultKind::kFail;
  int status = 1;
  std::string out, err;
};

// Every fault counts the runs its pattern matches, whether or not it fires;
// when several are due in one run the oldest fires and the others stay due.
bool dueFault(Db& db, const std::string& host, const std::string& tool, const std::string& cmdline,
              Fault* fault) {
  auto rows = db.query(
      "SELECT id, pattern, kind, nth, remaining, status, out, err, hits FROM faults "
      "WHERE (host='' OR host=?) AND (tool='' OR tool=?) ORDER BY id",
      {host, tool});
  const std::string line = squeezeBlanks(cmdline);
  const Row* due = nullptr;
  for (const auto& f : rows) {
    if (line.find(f[1].s) == std::string::npos)
      continue;
    int64_t hits = f[8].i + 1;
    db.exec("UPDATE faults SET hits=? WHERE id=?", {hits, f[0].i});
    if (!due && hits >= f[3].i && f[4].i > 0)
      due = &f;
  }
  if (!due)
    return false;
  const Row& f = *due;
  db.exec("UPDATE faults SET remaining=remaining-1 WHERE id=?", {f[0].i});
  faultKindFromName(f[2].s, &fault->kind);
  fault->status = static_cast<int>(f[5].i);
  fault->out = f[6].s;
  fault->err = f[7].s;
  return true;
}

// The first half of the text's lines, rounded up: what a run that dies in
// the middle of its output has printed.
std::string firstHalfOfLines(const std::string& text) {
  size_t lines = 0;
  for (char c : text) lines += c == '\n' ? 1 : 0;
  if (!text.empty() && text.back() != '\n')
    ++lines;
  size_t keep = (lines + 1) / 2, end = 0;
  for (size_t n = 0; n < keep; ++n) {
    size_t newline = text.find('\n', end);
    end = newline == std::string::npos ? text.size() : newline + 1;
  }
  return text.substr(0, end);
}

void logRun(Db& db, const std::string& host, const std::string& cmdline, const RunResult& r,
            std::chrono::steady_clock::time_point start) {
  auto usec = std::chrono::duration_cast<std::chrono::microseconds>(
                  std::chrono::steady_clock::now() - start)
                  .count();
  db.exec("INSERT INTO runs(host, cmd, status, usec, printed, changed) VALUES(?,?,?,?,?,?)",
          {host, cmdline, r.hang ? kHungStatus : r.status, static_cast<int64_t>(usec),
           r.printed ? 1 : 0, r.changed ? 1 : 0});
}

// The tool itself; its change is kept only when keep is set and it succeeds.
RunResult runModel(Db& db, Sim& s, const std::string& tool, const std::vector<std::string>& args,
                   bool keep) {
  RunResult r;
  int64_t before = db.totalChanges();
  db.exec("SAVEPOINT tool");
  try {
    if (isQzvmTool(tool) && !s.host.installed)
      fail(kNotInstalled, "QzVM is not installed on this host");
    findTool(tool)(s, args);
    r.out = s.out;
    r.printed = !r.out.empty();
    r.changed = db.totalChanges() != before;
    if (!keep)
      db.exec("ROLLBACK TO tool");
  } catch (const ToolError& e) {
    db.exec("ROLLBACK TO tool");
    r.status = e.status;
    r.out.clear();
    r.err = e.code ? errorLine(tool, e.code, e.text) : e.text + "\n";
  }
  db.exec("RELEASE tool");
  s.sync(db.totalChanges() != before);
  return r;
}

// A run that a fault ends: what its kind let the run print, then the
// fault's own output and status.
RunResult faultResult(const Fault& fault, const std::string& printed, const RunResult& own = {}) {
  return {fault.status, printed + fault.out, fault.err, fault.kind == FaultKind::kHang,
          own.changed,  own.printed};
}

RunResult runInTransaction(Db& db, Sim& s, const std::string& tool,
                           const std::vector<std::string>& args, const std::string& cmdline) {
  Fault fault;
  if (!dueFault(db, s.host.name, tool, cmdline, &fault))
    return runModel(db, s, tool, args, true);
  switch (fault.kind) {
    case FaultKind::kAfter:
      return faultResult(fault, "", runModel(db, s, tool, args, true));
    case FaultKind::kKill: {
      // The tool does its work, and its caller dies before it reads what
      // the tool printed.
      RunResult made = runModel(db, s, tool, args, true);
      made.killCaller = true;
      return made;
    }
    case FaultKind::kPartial: {
      const RunResult own = runModel(db, s, tool, args, false);
      return faultResult(fault, firstHalfOfLines(own.out), own);
    }
    case FaultKind::kFail:
    case FaultKind::kHang:
      break;
  }
  return faultResult(fault, "");
}

// What /proc says of a process: its name, parent and process group.
struct ProcessInfo {
  std::string name;
  pid_t parent = 0;
  pid_t group = 0;
};

bool readProcess(pid_t pid, ProcessInfo* info) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string stat;
  if (!std::getline(in, stat))
    return false;
  // "PID (NAME) STATE PPID PGRP ...": the name may hold blanks and brackets.
  const size_t open = stat.find('(');
  const size_t close = stat.rfind(')');
  if (open == std::string::npos || close == std::string::npos || close < open)
    return false;
  info->name = stat.substr(open + 1, close - open - 1);
  std::istringstream rest(stat.substr(close + 1));
  std::string state;
  return static_cast<bool>(rest >> state >> info->parent >> info->group);
}

bool isShell(const std::string& name) {
  return name == "sh" || name == "dash" || name == "bash";
}

}  // namespace

bool faultKindFromName(const std::string& name, FaultKind* kind) {
  for (const KindName& k : kFaultKinds)
    if (name == k.name) {
      *kind = k.kind;
      return true;
    }
  return false;
}

const char* faultKindName(FaultKind kind) {
  for (const KindName& k : kFaultKinds)
    if (kind == k.kind)
      return k.name;
  return "fail";
}

std::string faultKindNames() {
  std::vector<std::string> names;
  for (const KindName& k : kFaultKinds) names.push_back(k.name);
  return join(names, "|");
}

bool killCaller() {
  ProcessInfo self;
  ProcessInfo caller;
  if (!readProcess(getpid(), &self) || !readProcess(self.parent, &caller))
    return false;
  pid_t victim = self.parent;
  if (isShell(caller.name)) {
    victim = caller.parent;
    if (!readProcess(victim, &caller))
      return false;
  }
  // A runner starts its tools in a process group of their own; a tool in
  // its caller's group was run by hand or by a test, which lives on.
  if (victim <= 1 || caller.group == self.group)
    return false;
  return kill(victim, SIGKILL) == 0;
}

std::string errorLine(const std::string& tool, int code, const std::string& text) {
  return "QZVM " + tool + " ERROR Q-5-1-" + std::to_string(code) + " " + text + "\n";
}

RunResult runTool(const std::string& root, const std::string& host, const std::string& tool,
                  const std::vector<std::string>& args) {
  auto start = std::chrono::steady_clock::now();
  RunResult r;
  if (!findTool(tool))
    return {1, "", errorLine(tool, 1, "unknown tool " + tool)};
  if (root.empty() || access(dbPath(root).c_str(), F_OK) != 0)
    return {2, "",
            errorLine(tool, 2, "no simulation at QZSIM_ROOT='" + root + "' (run qzsim init)")};
  std::string cmdline = tool;
  for (const auto& a : args) cmdline += " " + a;
  try {
    Db db(dbPath(root));
    db.begin();
    try {
      Sim s(db, root, host);
      r = runInTransaction(db, s, tool, args, cmdline);
    } catch (const ToolError& e) {
      r = {e.status, "", errorLine(tool, e.code, e.text)};
    }
    logRun(db, host, cmdline, r, start);
    db.commit();
  } catch (const DbError& e) {
    return {99, "", errorLine(tool, 99, std::string("simulation database: ") + e.what())};
  }
  return r;
}

}  // namespace qzsim
