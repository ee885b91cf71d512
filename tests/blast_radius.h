// The blast radius of the plug-in's work: which objects of the simulation
// the tool runs of one command (or of one framework call) changed, read from
// the simulator's log of changing runs ("qzsim log --changed") by reading
// each command line as the plug-in builds it, and judged against what the
// command may touch. A command may change the copy's disks and the groups
// made or imported on them; the source group and its disks only when its
// steps act on the source (access off and on); and what a test declares.
// Any other disk or group changed is a violation, named with the run (its
// log id, host and command line) and the object it touched.
//
// What a run touches, by its tool and arguments:
//   qzdg init DG [dm=]DA..., -g DG adddisk [dm=]DA...   DG (made) and the disks
//   qzdg [-C] [-n NEW] import DG|ID                       NEW (made), else the group
//                                                         that the name or id names
//   qzdg deport|destroy|flush DG                          DG
//   qzdisk rm|clearimport DISK..., [-f] init DISK ...     the disks
//   qzdisksetup ... DISK, qzdiskunsetup [-C] DISK         the disk
//   parted -s /dev/OS ...                                 the disk
//   qzdmpadm [-f] enable|disable path=OS                  the disk
//   qzvol -g DG start|stop|startall|stopall ...           DG (every group without -g)
//   qzvset -g DG start|stop|make ..., qzassist -g DG make DG
//   qzmake -g DG -d FILE                                  DG
//   listings, qzdisk scandisks, qzcdsconvert, rpm         nothing
// Disks are named by their multipath node (qzarr0_N) or an OS name of the
// run's host, with or without "/dev/", both mapped to the array's LUN by
// "qzsim disk list --ids". A group is the copy's when a command made it on
// allowed disks, or when every disk that carries its name is allowed.
#ifndef QZVMFI_TESTS_BLAST_RADIUS_H
#define QZVMFI_TESTS_BLAST_RADIUS_H

#include <map>
#include <mutex>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <qzsim/sandbox.h>

namespace qzblast {

using Lines = std::vector<std::string>;

inline Lines wordsOf(const std::string& text) {
  std::istringstream in(text);
  Lines result;
  for (std::string word; in >> word;) {
    result.push_back(word);
  }
  return result;
}

inline Lines splitOn(const std::string& text, char separator) {
  Lines items;
  std::istringstream in(text);
  for (std::string item; std::getline(in, item, separator);) {
    items.push_back(item);
  }
  return items;
}

// One row of "qzsim log": a tool run.
struct LoggedRun {
  long id = 0;
  std::string host;
  std::string status;
  std::string command;  // the tool's name and its arguments joined by one blank
};

inline std::vector<LoggedRun> parseLog(const std::string& text) {
  std::vector<LoggedRun> runs;
  for (const std::string& line : splitOn(text, '\n')) {
    const Lines fields = wordsOf(line);
    if (fields.size() < 5 || fields[0] == "ID") {
      continue;
    }
    LoggedRun run;
    run.id = std::stol(fields[0]);
    run.host = fields[1];
    run.status = fields[2];
    for (size_t i = 4; i < fields.size(); ++i) {
      run.command += (i > 4 ? " " : "") + fields[i];
    }
    runs.push_back(run);
  }
  return runs;
}

// One row of "qzsim disk list --ids": a LUN, its node, the group name and id
// on its private region, the host that holds its lock, and its OS names on
// each host.
struct Lun {
  std::string lun;
  std::string node;
  std::string group;
  std::string lock;
  std::string groupId;
  std::map<std::string, Lines> paths;
};

inline std::vector<Lun> parseDiskList(const std::string& text) {
  std::vector<Lun> luns;
  for (const std::string& line : splitOn(text, '\n')) {
    const Lines fields = wordsOf(line);
    if (fields.size() < 9 || fields[0] == "LUN") {
      continue;
    }
    Lun lun{fields[0], fields[1], fields[4], fields[5], fields[8], {}};
    for (const std::string& path : splitOn(fields[7] == "-" ? "" : fields[7], ',')) {
      const size_t colon = path.find(':');
      const size_t mark = path.find('(');
      if (colon != std::string::npos) {
        lun.paths[path.substr(0, colon)].push_back(
            path.substr(colon + 1, mark == std::string::npos ? mark : mark - colon - 1));
      }
    }
    luns.push_back(lun);
  }
  return luns;
}

// What one run changes, read from its command line.
struct Target {
  enum Kind { kDisk, kGroup, kGroupOrId, kEveryGroup, kUnread };
  Kind kind;
  std::string name;
  bool made = false;  // a group the run makes (init, import -n)
};

// The options of a command line with the letters that take a value, and
// its other words in order. Letters may be combined ("-Cs"); a value
// follows its letter or comes as the next word.
struct Parsed {
  std::map<char, std::string> values;
  std::set<char> flags;
  Lines words;
};

inline Parsed parseArgs(const Lines& args, const std::string& valued) {
  Parsed parsed;
  for (size_t i = 1; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (arg.size() < 2 || arg[0] != '-') {
      parsed.words.push_back(arg);
      continue;
    }
    for (size_t at = 1; at < arg.size(); ++at) {
      if (valued.find(arg[at]) == std::string::npos) {
        parsed.flags.insert(arg[at]);
        continue;
      }
      if (at + 1 < arg.size()) {
        parsed.values[arg[at]] = arg.substr(at + 1);
      } else if (i + 1 < args.size()) {
        parsed.values[arg[at]] = args[++i];
      }
      break;
    }
  }
  return parsed;
}

// A disk argument: "dm=da" names the disk da; keys of a tool's own
// ("cds=on", "type=auto") name none.
inline std::string diskOfArg(const std::string& arg) {
  static const std::set<std::string> keys = {
      "cds",       "type",   "format",  "privoffset", "privlen",   "puboffset", "publen",
      "configlen", "loglen", "nconfig", "nlog",       "privslice", "pubslice"};
  const size_t equals = arg.find('=');
  if (equals == std::string::npos) {
    return arg;
  }
  return keys.count(arg.substr(0, equals)) != 0 ? std::string() : arg.substr(equals + 1);
}

inline std::vector<Target> targetsOf(const std::string& command) {
  const Lines args = wordsOf(command);
  std::vector<Target> targets;
  if (args.empty()) {
    return targets;
  }
  const std::string& tool = args[0];
  const auto disks = [&](const Lines& words, size_t from) {
    for (size_t i = from; i < words.size(); ++i) {
      const std::string disk = diskOfArg(words[i]);
      if (!disk.empty()) {
        targets.push_back({Target::kDisk, disk});
      }
    }
  };
  const auto group = [&](const Parsed& parsed) {
    if (parsed.values.count('g') != 0) {
      targets.push_back({Target::kGroup, parsed.values.at('g')});
    } else {
      targets.push_back({Target::kUnread, "no -g"});
    }
  };
  const auto unread = [&] { targets.push_back({Target::kUnread, command}); };
  static const std::set<std::string> readers = {"qzprint", "qzinfo", "rpm", "qzcdsconvert"};
  if (readers.count(tool) != 0) {
    return targets;
  }
  if (tool == "qzdg") {
    const Parsed p = parseArgs(args, "gn");
    const std::string op = p.words.empty() ? "" : p.words[0];
    const std::string object = p.words.size() > 1 ? p.words[1] : "";
    if (op == "list") {
    } else if (op == "init" && !object.empty()) {
      targets.push_back({Target::kGroup, object, true});
      disks(p.words, 2);
    } else if (op == "adddisk") {
      group(p);
      disks(p.words, 1);
    } else if (op == "import" && p.values.count('n') != 0) {
      targets.push_back({Target::kGroup, p.values.at('n'), true});
    } else if (op == "import" && !object.empty()) {
      targets.push_back({Target::kGroupOrId, object});
    } else if ((op == "deport" || op == "destroy" || op == "flush") && !object.empty()) {
      targets.push_back({Target::kGroup, object});
    } else {
      unread();
    }
  } else if (tool == "qzdisk") {
    const Parsed p = parseArgs(args, "g");
    const std::string op = p.words.empty() ? "" : p.words[0];
    if (op == "list" || op == "scandisks") {
    } else if (op == "rm" || op == "clearimport" || op == "init") {
      disks(p.words, 1);
    } else {
      unread();
    }
  } else if (tool == "qzdisksetup" || tool == "qzdiskunsetup") {
    disks(parseArgs(args, "").words, 0);
  } else if (tool == "parted") {
    for (const std::string& word : parseArgs(args, "").words) {
      if (word.compare(0, 5, "/dev/") == 0) {
        targets.push_back({Target::kDisk, word});
      }
    }
  } else if (tool == "qzdmpadm") {
    const Parsed p = parseArgs(args, "");
    const std::string op = p.words.empty() ? "" : p.words[0];
    if (op == "enable" || op == "disable") {
      for (const std::string& word : p.words) {
        if (word.compare(0, 5, "path=") == 0) {
          targets.push_back({Target::kDisk, word.substr(5)});
        }
      }
    } else if (op != "getdmpnode" && op != "getsubpaths") {
      unread();
    }
  } else if (tool == "qzvol") {
    const Parsed p = parseArgs(args, "gU");
    const std::string op = p.words.empty() ? "" : p.words[0];
    if ((op == "startall" || op == "stopall") && p.values.count('g') == 0) {
      targets.push_back({Target::kEveryGroup, "every group"});
    } else if (op == "start" || op == "stop" || op == "startall" || op == "stopall") {
      group(p);
    } else {
      unread();
    }
  } else if (tool == "qzvset" || tool == "qzassist") {
    const Parsed p = parseArgs(args, "g");
    const std::string op = p.words.empty() ? "" : p.words[0];
    if (op == "list" || op == "maxsize") {
    } else if (op == "start" || op == "stop" || op == "make") {
      group(p);
    } else {
      unread();
    }
  } else if (tool == "qzmake") {
    group(parseArgs(args, "gd"));
  } else {
    unread();
  }
  return targets;
}

// What the commands of a test may change besides the copy's groups, which
// are found as they are made.
struct Scope {
  std::set<std::string> disks;         // LUNs of the copy, and those a test declares
  std::set<std::string> groups;        // groups of the copy, and those a test declares
  std::set<std::string> sourceGroups;  // changed only by commands that act on the source
  std::set<std::string> sourceDisks;   // LUNs of the source groups, likewise
};

// The judge of runs against a scope. It remembers the copy's groups as
// commands make them, and from every listing of the array the names of
// disks (so that a name whose path is gone since still maps to its LUN) and
// the groups that carried each group id (so that an import by id of a group
// that the same command destroyed is still read).
class Judge {
 public:
  Scope& scope() { return m_scope; }

  // The violations of runs (changing runs, in log order) made by one
  // command, judged against the array as listed now; sourceAllowed when
  // the command's steps act on the source.
  Lines judge(const std::vector<LoggedRun>& runs, bool sourceAllowed,
              const std::vector<Lun>& luns) {
    learn(luns);
    m_sourceAllowed = sourceAllowed;
    Lines violations;
    for (const LoggedRun& run : runs) {
      for (const Target& target : targetsOf(run.command)) {
        const std::string why = judged(run, target);
        if (!why.empty()) {
          violations.push_back("run " + std::to_string(run.id) + " on host " + run.host + " (" +
                               run.command + ") " + why);
        }
      }
    }
    return violations;
  }

  // The array as listed now: its LUNs' names and group ids remembered, and
  // the groups that only the copy's disks carry taken as the copy's.
  void learn(const std::vector<Lun>& luns) {
    m_rows = luns;
    std::map<std::string, bool> onTheCopy;
    for (const Lun& lun : m_rows) {
      if (lun.group != "-") {
        const auto [at, first] = onTheCopy.emplace(lun.group, true);
        at->second = at->second && m_scope.disks.count(lun.lun) != 0;
      }
    }
    for (const auto& [group, copy] : onTheCopy) {
      if (copy && m_scope.sourceGroups.count(group) == 0) {
        m_scope.groups.insert(group);
      }
    }
    for (const Lun& lun : m_rows) {
      m_names[{std::string(), lun.node}] = lun.lun;
      m_names[{std::string(), lun.lun}] = lun.lun;
      for (const auto& [host, names] : lun.paths) {
        for (const std::string& name : names) {
          m_names[{host, name}] = lun.lun;
        }
      }
      if (lun.groupId != "-" && lun.group != "-") {
        m_idGroups[lun.groupId].insert(lun.group);
      }
    }
  }

  // The LUN of a disk name on host, or nothing.
  std::string lunOf(const std::string& host, const std::string& name) const {
    const std::string bare = name.compare(0, 5, "/dev/") == 0 ? name.substr(5) : name;
    for (const auto& key : {std::make_pair(host, bare), std::make_pair(std::string(), bare)}) {
      const auto known = m_names.find(key);
      if (known != m_names.end()) {
        return known->second;
      }
    }
    return std::string();
  }

 private:
  bool allowedDisk(const std::string& lun) const {
    return m_scope.disks.count(lun) != 0 ||
           (m_sourceAllowed && m_scope.sourceDisks.count(lun) != 0);
  }

  std::string judged(const LoggedRun& run, const Target& target) {
    switch (target.kind) {
      case Target::kDisk: {
        const std::string lun = lunOf(run.host, target.name);
        if (lun.empty()) {
          return "changes the disk " + target.name + ", which no LUN of the array has";
        }
        if (allowedDisk(lun)) {
          return std::string();
        }
        return "changes the disk " + target.name + " (" + lun + "), " +
               (m_scope.sourceDisks.count(lun) != 0
                    ? "a disk of the source, in a command that does not act on the source"
                    : "which is not one of the copy's disks");
      }
      case Target::kGroup:
        return judgedGroup(target.name, target.made);
      case Target::kGroupOrId:
        return judgedGroupOrId(run.host, target.name);
      case Target::kEveryGroup:
        return "changes every group of the host";
      case Target::kUnread:
        return "is a change the check cannot read (" + target.name + ")";
    }
    return std::string();
  }

  // An import by name or by id: the groups on the disks that carry that id
  // (those locked by the run's host first, where the import put its lock),
  // or, when no disk carries it now, the groups that carried it before.
  std::string judgedGroupOrId(const std::string& host, const std::string& name) {
    static const std::regex id("[0-9]+\\.[0-9]+\\.[A-Za-z0-9_.-]+");
    if (!std::regex_match(name, id)) {
      return judgedGroup(name, false);
    }
    std::set<std::string> all;
    std::set<std::string> locked;
    for (const Lun& lun : m_rows) {
      if (lun.groupId == name) {
        all.insert(lun.group);
        if (lun.lock == host) {
          locked.insert(lun.group);
        }
      }
    }
    const auto before = m_idGroups.find(name);
    std::set<std::string> named = !locked.empty() ? locked : all;
    if (named.empty() && before != m_idGroups.end()) {
      named = before->second;
    }
    if (named.empty()) {
      return "imports the group id " + name + ", which no disk carries";
    }
    std::string why;
    for (const std::string& group : named) {
      const std::string one = judgedGroup(group, false);
      why += why.empty() || one.empty() ? one : "; " + one;
    }
    return why;
  }

  std::string judgedGroup(const std::string& group, bool made) {
    if (m_scope.sourceGroups.count(group) != 0) {
      return m_sourceAllowed ? std::string()
                             : "changes the source group " + group +
                                   ", in a command that does not act on the source";
    }
    if (m_scope.groups.count(group) != 0) {
      return std::string();
    }
    std::string foreign;
    bool carried = false;
    for (const Lun& lun : m_rows) {
      if (lun.group == group) {
        carried = true;
        if (!allowedDisk(lun.lun)) {
          foreign += " " + lun.lun;
        }
      }
    }
    if (!foreign.empty()) {
      return "changes the group " + group +
             ", which is on disks that are not the copy's:" + foreign;
    }
    if (carried || made) {
      m_scope.groups.insert(group);
      return std::string();
    }
    return "changes the group " + group +
           ", which no disk carries and which no command was seen making on the copy's disks";
  }

  Scope m_scope;
  std::map<std::pair<std::string, std::string>, std::string> m_names;
  std::map<std::string, std::set<std::string>> m_idGroups;
  std::vector<Lun> m_rows;
  bool m_sourceAllowed = false;
};

// The judge connected to a simulation: marks where a command starts in the
// log, and judges the changing runs made since. Safe to call from several
// threads (commands run at once share the scope).
class BlastRadius {
 public:
  explicit BlastRadius(std::string root) : m_root(std::move(root)) {}

  // Where a command starts: the log's last changing run, after which its
  // own changing runs come. When runs changed something since the last
  // look (the test's own set-up), the array as the command finds it is
  // remembered.
  long mark() {
    const long last = lastChange(changingRuns());
    std::lock_guard<std::mutex> lock(m_mutex);
    if (last != m_lastSeen) {
      m_judge.learn(listed());
      m_lastSeen = last;
    }
    return last;
  }

  // The violations of the changing runs after mark; sourceAllowed when the
  // command's steps act on the source.
  Lines since(long mark, bool sourceAllowed) {
    const qzsim::CommandResult log = qzsim::simAdmin(m_root, {"log", "--changed"});
    if (log.status != 0) {
      return {"qzsim log --changed failed: " + log.err};
    }
    const std::vector<LoggedRun> all = parseLog(log.out);
    std::vector<LoggedRun> runs;
    for (const LoggedRun& run : all) {
      if (run.id > mark) {
        runs.push_back(run);
      }
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lastSeen = lastChange(all);
    if (runs.empty()) {
      return {};
    }
    return m_judge.judge(runs, sourceAllowed, listed());
  }

  // Declarations of what the commands of a test may change: a disk by a
  // name on host, a LUN, a group; a group of the test's own with its LUNs,
  // changed only by commands that act on the source.
  void allowDisk(const std::string& host, const std::string& name) {
    const std::vector<Lun> luns = listed();
    std::lock_guard<std::mutex> lock(m_mutex);
    m_judge.learn(luns);
    const std::string lun = m_judge.lunOf(host, name);
    m_judge.scope().disks.insert(lun.empty() ? name : lun);
  }
  void allowLun(const std::string& lun) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_judge.scope().disks.insert(lun);
  }
  void allowGroup(const std::string& group) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_judge.scope().groups.insert(group);
  }
  void sourceGroup(const std::string& group, const Lines& luns) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_judge.scope().sourceGroups.insert(group);
    m_judge.scope().sourceDisks.insert(luns.begin(), luns.end());
  }

 private:
  std::vector<Lun> listed() {
    return parseDiskList(qzsim::simAdmin(m_root, {"disk", "list", "--ids"}).out);
  }

  std::vector<LoggedRun> changingRuns() {
    return parseLog(qzsim::simAdmin(m_root, {"log", "--changed"}).out);
  }

  static long lastChange(const std::vector<LoggedRun>& runs) {
    return runs.empty() ? 0 : runs.back().id;
  }

  std::string m_root;
  std::mutex m_mutex;
  Judge m_judge;
  long m_lastSeen = -1;  // the last changing run that a look at the log saw
};

}  // namespace qzblast

#endif  // QZVMFI_TESTS_BLAST_RADIUS_H
