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

// A fault that fires replaces the run: no state changes, only its output;
// but a kill fault lets the run be made and marks it.
// Every fault counts the runs its pattern matches, whether or not it fires;
// when several are due in one run the oldest fires and the others stay due.
bool fireFault(Db& db, const std::string& host, const std::string& tool, const std::string& cmdline,
               RunResult* r) {
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
  // A kill does not replace the run: the tool does its work, and its caller
  // dies before it reads what the tool printed.
  if (f[2].s == "kill") {
    r->killCaller = true;
    return false;
  }
  r->status = static_cast<int>(f[5].i);
  r->out = f[6].s;
  r->err = f[7].s;
  r->hang = f[2].s == "hang";
  if (f[2].s == "busy" && r->err.empty())
    r->err = errorLine(tool, 304, "Volume is busy");
  return true;
}

void logRun(Db& db, const std::string& host, const std::string& cmdline, int status,
            std::chrono::steady_clock::time_point start) {
  auto usec = std::chrono::duration_cast<std::chrono::microseconds>(
                  std::chrono::steady_clock::now() - start)
                  .count();
  db.exec("INSERT INTO runs(host, cmd, status, usec) VALUES(?,?,?,?)",
          {host, cmdline, status, static_cast<int64_t>(usec)});
}

RunResult runInTransaction(Db& db, Sim& s, const std::string& tool,
                           const std::vector<std::string>& args, const std::string& cmdline) {
  RunResult r;
  if (fireFault(db, s.host.name, tool, cmdline, &r))
    return r;
  int64_t before = db.totalChanges();
  db.exec("SAVEPOINT tool");
  try {
    if (isQzvmTool(tool) && !s.host.installed)
      fail(kNotInstalled, "QzVM is not installed on this host");
    findTool(tool)(s, args);
    r.out = s.out;
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
    logRun(db, host, cmdline, r.hang ? kHungStatus : r.status, start);
    db.commit();
  } catch (const DbError& e) {
    return {99, "", errorLine(tool, 99, std::string("simulation database: ") + e.what())};
  }
  return r;
}

}  // namespace qzsim
