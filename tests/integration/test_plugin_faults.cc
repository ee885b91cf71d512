// A failed tool run at every step of each flow that the framework drives
// through the loaded plug-in library. Each flow runs once to count its tool
// runs on the host it works on; then, for every k, it runs again with the
// k-th of those runs failing. The call that meets the failure ends with a
// pushed message and its documented status (or the flow gets over it), the
// source volume keeps its data, the simulation stays consistent, and the
// same flow run again once the fault is gone succeeds. Every flow is swept
// with each kind of failure: a run that does nothing ("fail"), one that
// makes its change first ("after": only runs that change something), and
// one that prints the first half of its output first ("partial": only runs
// that print something). Every call is followed by the blast-radius check
// (../blast_radius.h): the tool runs it made changed only the copy's disks
// and groups (the plain disks and the group made on them, for the resource
// calls), and the source group dg1 and its disks only in the access calls.
// Every test prints its row of the table; a run of the whole program prints
// the table at the end.
#include <cstdio>
#include <functional>
#include <set>

#include "../blast_radius.h"
#include "plugin_library.h"

namespace {

// Under the sanitizers, where every run costs several times as much, the
// sweep keeps to the failing run, at every fourth run to sweep (and the
// first and the last), to hold CI's time; the release build sweeps every
// kind at every run.
#ifdef QZ_FAULT_SWEEP_SAMPLE
const auto kKinds = ::testing::Values("fail");
const size_t kStride = QZ_FAULT_SWEEP_SAMPLE;
#else
const auto kKinds = ::testing::Values("fail", "after", "partial");
const size_t kStride = 1;
#endif

using qzvmfi_it::holds;
using qzvmfi_it::Lines;
using qzvmfi_it::parseDisks;
using qzvmfi_it::PluginHostTest;
using qzvmfi_it::SimDisk;
using qzvmfi_it::TestNode;
using qzvmfi_it::TestNodeList;
using qzvmfi_it::TestObjids;
using qzvmfi_test::TestPaths;
using qzvmfi_test::TestTextArray;

const std::string kVol1 = "/dev/qz/dsk/dg1/vol1";

// One call of a flow: its status on success, and the statuses it documents
// for a failed tool run (its success status among them when it only
// reports such a failure and carries on).
struct Step {
  std::string name;
  std::function<int()> call;
  int success;
  std::set<int> onFailure;
};

struct Flow {
  std::string name;
  // The host whose tool runs are counted and made to fail.
  std::string host;
  // Brings the simulation and the plug-in to where the flow starts.
  std::function<void()> before;
  std::vector<Step> steps;
  // Whether the flow's work is there.
  std::function<bool()> done;
  // A flow run again that stops short of its work because the operations
  // are made so: why, when that is the case now; empty otherwise.
  std::function<std::string()> leftByDesign = [] { return std::string(); };
  // Whether a failed flow runs again from its first call rather than from
  // the call that failed.
  bool rerunWhole = false;
  // What the framework and the array do before a failed flow runs again.
  std::function<void()> retry = [] {};
  // Brings the simulation back to where before() can start again, with the
  // source volume started.
  std::function<void()> after = [] {};
  // Whether the calls act on the source group (access off and on).
  bool onSource = false;
};

Flow named(const std::string& name, const std::string& host) {
  Flow flow;
  flow.name = name;
  flow.host = host;
  return flow;
}

struct Row {
  std::string flow, kind;
  unsigned long runs = 0;
  unsigned long swept = 0;
  unsigned long injected = 0;
  unsigned long clean = 0;
  unsigned long absorbed = 0;
  unsigned long converged = 0;
  unsigned long byDesign = 0;
};

std::vector<Row>& rows() {
  static std::vector<Row> table;
  return table;
}

void printTable(const std::vector<Row>& table) {
  std::printf("%-26s %-8s %6s %6s %16s %16s %9s %17s %10s\n", "flow", "kind", "runs", "swept",
              "faults injected", "clean failures", "absorbed", "converged re-runs", "by design");
  for (const Row& row : table) {
    std::printf("%-26s %-8s %6lu %6lu %16lu %16lu %9lu %17lu %10lu\n", row.flow.c_str(),
                row.kind.c_str(), row.runs, row.swept, row.injected, row.clean, row.absorbed,
                row.converged, row.byDesign);
  }
  std::fflush(stdout);
}

// The table of every flow this program swept, printed when it ends.
class FaultTable : public ::testing::Environment {
 public:
  void TearDown() override {
    if (rows().size() > 1) {
      printTable(rows());
    }
  }
};
::testing::Environment* const kFaultTable = ::testing::AddGlobalTestEnvironment(new FaultTable);

// What running the steps of a flow gave: the first call that did not
// succeed, with its status, or none.
struct Outcome {
  const Step* failed = nullptr;
  int status = 0;
  std::string text() const {
    return failed == nullptr ? "every call succeeded"
                             : failed->name + " returned " + std::to_string(status);
  }
};

// The kind of failure a test injects ("qzsim fault add --kind").
class PluginFaultTest : public PluginHostTest, public ::testing::WithParamInterface<const char*> {
 protected:
  std::string kind() const { return GetParam(); }

  void arrange() override {
    admin({"host", "add", "A"});
    admin({"host", "add", "B"});
    m_disks = addDisks(2, "A", 2, "128m");
    makeGroup("A", "dg1", {m_disks[0].node, m_disks[1].node});
    tool("A", "qzassist -g dg1 make vol1 150m");
    admin({"volume", "write", "--host", "A", "dg1", "vol1", "--seed", "11"});
    for (const char* path : {"/dev/qz/dsk/dg1/vol1", "/dev/qz/rdsk/dg1/vol1"}) {
      admin({"node", "set", "--host", "A", path, "--uid", "1001", "--gid", "1002"});
    }
    m_source = checksum("A", "dg1", "vol1");
    m_blast = std::make_unique<qzblast::BlastRadius>(root());
    m_blast->sourceGroup("dg1", {m_disks[0].lun, m_disks[1].lun});
  }

  unsigned long toolRuns(const std::string& host) {
    return std::stoul(admin({"log", "--host", host, "--total"}));
  }

  // The ids of the host's runs, all or only those the log flag selects.
  std::set<unsigned long> runIds(const std::string& host, const std::string& flag) {
    std::vector<std::string> args = {"log", "--host", host};
    if (!flag.empty()) {
      args.push_back(flag);
    }
    std::set<unsigned long> ids;
    for (const std::string& line : qzvmfi_it::linesOf(admin(args))) {
      const Lines fields = qzvmfi_it::words(line);
      if (!fields.empty() && fields[0] != "ID") {
        ids.insert(std::stoul(fields[0]));
      }
    }
    return ids;
  }

  // Which of the host's last runs (numbered from 1) a failure of this kind
  // can tell apart from a run that does nothing: those that change
  // something for "after", those that print something for "partial".
  // Every kStride-th run of those to sweep, the first and the last.
  static std::vector<unsigned long> sampled(const std::vector<unsigned long>& runs) {
    std::vector<unsigned long> kept;
    for (size_t i = 0; i < runs.size(); ++i) {
      if (i % kStride == 0 || i + 1 == runs.size()) {
        kept.push_back(runs[i]);
      }
    }
    return kept;
  }

  std::vector<unsigned long> runsToSweep(const std::string& host, unsigned long runs) {
    const std::string flag = kind() == "after"     ? "--changed"
                             : kind() == "partial" ? "--printed"
                                                   : "";
    const std::set<unsigned long> all = runIds(host, "");
    const std::set<unsigned long> selected = runIds(host, flag);
    std::vector<unsigned long> last(all.begin(), all.end());
    last.erase(last.begin(), last.end() - static_cast<long>(runs));
    std::vector<unsigned long> sweep;
    for (unsigned long nth = 1; nth <= runs; ++nth) {
      if (selected.count(last[nth - 1]) != 0) {
        sweep.push_back(nth);
      }
    }
    return sampled(sweep);
  }

  // The command line of the host's run number index (from 1), as the
  // simulator logged it.
  std::string loggedRun(const std::string& host, unsigned long index) {
    const Lines log = qzvmfi_it::linesOf(admin({"log", "--host", host}));
    if (index >= log.size()) {
      return "";
    }
    const Lines fields = qzvmfi_it::words(log[index]);
    std::string command;
    for (size_t i = 4; i < fields.size(); ++i) {
      command += (i > 4 ? " " : "") + fields[i];
    }
    return command;
  }

  // Whether the disk carries a disk group, imported or not, as a scan of
  // host A shows it.
  bool carriesQzVM(const SimDisk& disk) {
    tool("A", "qzdisk scandisks");
    for (const std::string& line : qzvmfi_it::linesOf(tool("A", "qzdisk list"))) {
      const Lines fields = qzvmfi_it::words(line);
      if (fields.size() >= 4 && fields[0] == disk.node) {
        return fields[3] != "-";
      }
    }
    return false;
  }

  std::string check() { return qzsim::simAdmin(root(), {"check"}).out; }
  static bool isOK(const std::string& check) { return check.compare(0, 2, "OK") == 0; }

  bool groupImported(const std::string& host, const std::string& dg) {
    return qzsim::simTool(root(), host, "qzdg list " + dg).status == 0;
  }
  bool volumeStarted(const std::string& host, const std::string& dg, const std::string& vol) {
    const qzsim::CommandResult result = qzsim::simTool(root(), host, "qzinfo -g " + dg + " " + vol);
    return result.status == 0 && holds(result.out, "Started");
  }

  // The steps from the first on, or from the one given, each followed by
  // the blast-radius check of the tool runs it made.
  Outcome runSteps(const std::vector<Step>& steps, const Step* from = nullptr) {
    Outcome outcome;
    bool started = from == nullptr;
    for (const Step& step : steps) {
      started = started || &step == from;
      if (!started) {
        continue;
      }
      const long mark = m_blast->mark();
      outcome.status = step.call();
      for (const std::string& violation : m_blast->since(mark, m_onSource)) {
        ADD_FAILURE() << m_at << ": " << step.name << " outside the blast radius: " << violation;
      }
      if (outcome.status != step.success) {
        outcome.failed = &step;
        break;
      }
    }
    return outcome;
  }

  // A failure is clean when the call that met it returned a status it
  // documents for it with a message pushed, or when every call succeeded
  // and the flow got over the failure; and the simulation is consistent.
  bool cleanFailure(const Flow& flow, const Outcome& outcome, const Lines& messages, bool* absorbed,
                    std::string* why) {
    *absorbed = false;
    if (outcome.failed != nullptr) {
      if (outcome.failed->onFailure.count(outcome.status) == 0) {
        *why = outcome.text() + ", not a status it documents for a failure";
        return false;
      }
    } else if (flow.done()) {
      *absorbed = true;
    } else {
      bool reportsOnly = false;
      for (const Step& step : flow.steps) {
        reportsOnly = reportsOnly || step.onFailure.count(step.success) != 0;
      }
      if (!reportsOnly) {
        *why = "every call succeeded but the flow's work is missing";
        return false;
      }
    }
    if (!*absorbed && messages.empty()) {
      *why = outcome.text() + " without a pushed message";
      return false;
    }
    const std::string state = check();
    if (!isOK(state)) {
      *why = "the simulation is not consistent:\n" + state;
      return false;
    }
    return true;
  }

  // The flow once as it is, then once with a failure at each of its tool
  // runs; its row of the table, also printed.
  Row sweep(const Flow& flow) {
    m_onSource = flow.onSource;
    m_at = flow.name;
    Row row;
    row.flow = flow.name;
    row.kind = kind();
    // Once to settle what a first run does once only (disks seen for the
    // first time), once to count.
    flow.before();
    runSteps(flow.steps);
    flow.after();
    flow.before();
    const unsigned long start = toolRuns(flow.host);
    const Outcome first = runSteps(flow.steps);
    row.runs = toolRuns(flow.host) - start;
    const std::vector<unsigned long> toSweep = runsToSweep(flow.host, row.runs);
    row.swept = toSweep.size();
    EXPECT_TRUE(first.failed == nullptr && flow.done()) << flow.name << ": " << first.text();
    flow.after();
    for (unsigned long nth : toSweep) {
      sweepAt(flow, nth, &row);
    }
    rows().push_back(row);
    printTable({row});
    EXPECT_EQ(row.injected, row.swept) << flow.name;
    EXPECT_EQ(row.clean, row.injected) << flow.name;
    EXPECT_EQ(row.converged + row.byDesign, row.injected) << flow.name;
    return row;
  }

  void sweepAt(const Flow& flow, unsigned long nth, Row* row) {
    m_at = flow.name + ", " + kind() + " failure at run " + std::to_string(nth);
    flow.before();
    plugin().lastErrors();
    const unsigned long start = toolRuns(flow.host);
    admin({"fault", "add", "--host", flow.host, "--nth", std::to_string(nth), "--kind", kind(),
           "--status", "9", "--stderr", "QZVM fault ERROR Q-5-1-99 injected failure"});
    const Outcome outcome = runSteps(flow.steps);
    const Lines messages = plugin().lastErrors();
    admin({"fault", "clear"});
    const std::string at = flow.name + ", " + kind() + " failure at run " + std::to_string(nth) +
                           " (" + loggedRun(flow.host, start + nth) + ")";
    if (toolRuns(flow.host) - start < nth) {
      ADD_FAILURE() << at << ": the flow ran fewer tool runs than before";
    } else {
      ++row->injected;
    }
    bool absorbed = false;
    std::string why;
    if (cleanFailure(flow, outcome, messages, &absorbed, &why)) {
      ++row->clean;
      row->absorbed += absorbed ? 1 : 0;
    } else {
      ADD_FAILURE() << at << ": " << why;
    }
    // The framework calls again the call that failed, and goes on from it.
    flow.retry();
    const Outcome again = runSteps(flow.steps, flow.rerunWhole ? nullptr : outcome.failed);
    const bool converged = again.failed == nullptr && flow.done();
    const std::string design = converged ? "" : flow.leftByDesign();
    if (!design.empty()) {
      std::printf("%s: run again, stops short by design: %s\n", at.c_str(), design.c_str());
      ++row->byDesign;
    }
    EXPECT_TRUE(converged || !design.empty()) << at << ": run again, " << again.text();
    flow.after();
    const std::string state = check();
    const bool kept = volumeStarted("A", "dg1", "vol1") && checksum("A", "dg1", "vol1") == m_source;
    EXPECT_TRUE(kept) << at << ": the source volume's data changed";
    EXPECT_TRUE(isOK(state)) << at << ":\n" << state;
    row->converged += converged && kept && isOK(state) ? 1 : 0;
  }

  // The source host's plug-in started afresh, with vol1's node initialised
  // and the list of it with its disks that access operations take.
  void initVol1() {
    startPluginAs("A");
    m_list = std::make_unique<TestNodeList>();
    m_node = std::make_unique<TestNode>(kVol1);
    ASSERT_EQ(0, plugin().init_node(&m_node->domain, nullptr, 0, m_node->objid()));
    m_subObjects = std::make_unique<TestObjids>(plugin().subObjects(&m_node->domain));
    m_list->add(&m_node->domain, m_subObjects.get());
  }

  int deportTree() {
    qzfi_free_objid(m_node->access.objid);
    m_node->access.objid = nullptr;
    qfi_accessnode access{&m_node->domain, m_node->objid(), QFI_DISP_NONE, 0};
    return plugin().deport_tree(&m_node->domain, nullptr, &access);
  }

  // What the framework carries to host B at a split of vol1's disks: the
  // node's provider state and sub-objects.
  void recordSplit() {
    initVol1();
    ASSERT_EQ(0, deportTree());
    ASSERT_EQ(0, plugin().post_deport(&m_node->domain, nullptr));
    m_state = plugin().savedState(&m_node->domain);
    m_primary = plugin().subObjects(&m_node->domain);
  }

  // The array copies vol1's disks to host B, where a plug-in is started
  // afresh.
  void splitToB() {
    m_copies =
        parseDisks(admin({"array", "split", "--disks", m_disks[0].node + "," + m_disks[1].node,
                          "--from-host", "A", "--to-host", "B"}));
    ASSERT_EQ(2u, m_copies.size());
    for (const SimDisk& copy : m_copies) {
      m_blast->allowLun(copy.lun);
    }
    startPluginAs("B");
    m_node = std::make_unique<TestNode>(kVol1);
    m_copy.reset();
  }

  // A failed import takes the copies' OS devices away with their disks:
  // the array presents again each copy that host B no longer sees.
  void presentCopiesAgain() {
    const Lines luns = qzvmfi_it::linesOf(admin({"disk", "list"}));
    for (SimDisk& copy : m_copies) {
      for (const std::string& line : luns) {
        const Lines fields = qzvmfi_it::words(line);
        if (fields[0] == copy.lun && !holds(fields.back(), "B:")) {
          const std::vector<SimDisk> attached =
              parseDisks(admin({"disk", "attach", copy.lun, "--host", "B"}));
          ASSERT_EQ(1u, attached.size());
          copy = attached[0];
        }
      }
    }
  }

  // The import on host B: the provider state restored, the copy made from
  // the split disks and its node initialised.
  std::vector<Step> importSteps() {
    return {
        {"process_providerstate",
         [this] { return plugin().restoreState(&m_node->domain, m_state); },
         0,
         {}},
        {"import_tree", [this] { return importTree(); }, 0, {6}},
        {"init_altnode",
         [this] { return plugin().init_altnode(&m_node->domain, nullptr, &m_copy->domain, false); },
         0,
         {6}},
    };
  }

  int importTree() {
    TestObjids primary(m_primary);
    Lines secondary;
    for (const SimDisk& copy : m_copies) {
      secondary.push_back("/dev/" + copy.osNames[0]);
    }
    TestObjids copies(secondary);
    qzfi_objid* made = nullptr;
    const int status =
        plugin().import_tree(&m_node->domain, primary.get(), copies.get(), primary.count(), &made);
    if (made != nullptr) {
      m_copy = std::make_unique<TestNode>(made->name);
      qzfi_free_objid(made);
    }
    return status;
  }

  // The copy's group on host B, from its device path.
  std::string copyGroup() const {
    const std::string path = m_copy != nullptr ? m_copy->path() : "";
    const size_t end = path.rfind('/');
    return end == std::string::npos || end < 12 ? "" : path.substr(12, end - 12);
  }

  bool copyMade() {
    const std::string dg = copyGroup();
    return !dg.empty() && volumeStarted("B", dg, "vol1") && checksum("B", dg, "vol1") == m_source &&
           ownerOf(m_copy->path()) == "1001:1002";
  }

  // Host B without the groups built there and the copies: they go back to
  // the array.
  void clearB() {
    const qzsim::CommandResult groups = qzsim::simTool(root(), "B", "qzdg list");
    for (const std::string& line : qzvmfi_it::linesOf(groups.out)) {
      const Lines fields = qzvmfi_it::words(line);
      if (!fields.empty() && fields[0] != "NAME") {
        qzsim::simTool(root(), "B", "qzdg deport " + fields[0]);
      }
    }
    // A copy's disk that is still in the view stays listed in state error
    // once detached, until it is taken out of the view.
    for (const SimDisk& copy : m_copies) {
      qzsim::simAdmin(root(), {"disk", "detach", copy.lun, "--host", "B"});
      qzsim::simTool(root(), "B", "qzdisk rm " + copy.node);
    }
  }

  std::vector<SimDisk> m_disks;
  std::string m_source;
  std::unique_ptr<TestNode> m_node;
  std::unique_ptr<TestObjids> m_subObjects;
  std::unique_ptr<TestNodeList> m_list;
  std::string m_state;
  Lines m_primary;
  std::vector<SimDisk> m_copies;
  std::unique_ptr<TestNode> m_copy;
  std::unique_ptr<qzblast::BlastRadius> m_blast;
  bool m_onSource = false;
  std::string m_at;  // the flow, and the failure injected, for the check's messages
};

// The source host prepares the volume: claim, then the node's
// initialisation with its disks, configuration and owner.
TEST_P(PluginFaultTest, SourcePrepare) {
  Flow flow = named("source prepare", "A");
  flow.before = [this] {
    startPluginAs("A");
    m_node = std::make_unique<TestNode>(kVol1);
  };
  flow.steps = {
      {"claim",
       [this] {
         qzfi_objid** secondary = nullptr;
         int count = 0;
         return plugin().claim(m_node->objid(), &secondary, &count);
       },
       1,
       {0}},
      // A node whose sub-objects could not be listed is initialised all
      // the same; the failed run is reported.
      {"init_node",
       [this] { return plugin().init_node(&m_node->domain, nullptr, 0, m_node->objid()); },
       0,
       {0, 6}},
  };
  flow.done = [this] {
    const std::string state = plugin().savedState(&m_node->domain);
    return plugin().subObjects(&m_node->domain).size() == 2 && holds(state, "fiid_dgconfig dg1 ") &&
           holds(state, "\nfiid_uigid 1001 1002");
  };
  sweep(flow);
}

// The split keeps the configuration: deportTree records it, postDeport
// rescans the disks (a failed rescan is only reported).
TEST_P(PluginFaultTest, Deport) {
  Flow flow = named("deport", "A");
  flow.before = [this] { initVol1(); };
  flow.steps = {
      {"deport_tree", [this] { return deportTree(); }, 0, {6}},
      {"post_deport", [this] { return plugin().post_deport(&m_node->domain, nullptr); }, 0, {0}},
  };
  flow.done = [this] {
    return holds(plugin().savedState(&m_node->domain), "fiid_altvol " + kVol1 + "\n");
  };
  sweep(flow);
}

// Host B rebuilds the group on the split disks under a new name.
TEST_P(PluginFaultTest, ImportOnAnotherHost) {
  recordSplit();
  Flow flow = named("import on another host", "B");
  flow.before = [this] { splitToB(); };
  flow.steps = importSteps();
  flow.retry = [this] { presentCopiesAgain(); };
  // A failed init_altnode takes away the group that import_tree built.
  flow.rerunWhole = true;
  flow.done = [this] { return copyMade(); };
  flow.after = [this] { clearB(); };
  sweep(flow);
}

// Host B takes the copy offline and deletes it with its disks.
TEST_P(PluginFaultTest, Release) {
  recordSplit();
  std::unique_ptr<qfi_splitnode> target;
  Flow flow = named("release", "B");
  flow.before = [&] {
    splitToB();
    const std::vector<Step> import = importSteps();
    ASSERT_EQ(nullptr, runSteps(import).failed);
    target = std::make_unique<qfi_splitnode>(
        qfi_splitnode{&m_copy->domain, m_copy->objid(), nullptr, QFI_DISP_DELETE, 0});
  };
  flow.steps = {
      // A volume that could not be stopped is reported; online carries on.
      {"online",
       [this] { return plugin().online(&m_node->domain, &m_copy->domain, 2, QFI_DISP_NONE); },
       0,
       {0}},
      {"dispose",
       [&] {
         return plugin().dispose(&m_node->domain, &m_copy->domain, target.get(), QFI_DISP_DELETE);
       },
       0,
       {6}},
  };
  flow.done = [this] {
    const std::string dg = copyGroup();
    const std::string view = qzsim::simTool(root(), "B", "qzdisk list").out;
    return !groupImported("B", dg) && !holds(view, m_copies[0].node + " ") &&
           !holds(view, m_copies[1].node + " ");
  };
  // The disks are found through their group: once the group is gone
  // (destroyed by a run that failed after it, or before a removal from the
  // view that failed), a run again does not find them, and they stay in the
  // view (in state error once their paths are gone with the device tree).
  flow.leftByDesign = [this] {
    const std::string view = qzsim::simTool(root(), "B", "qzdisk list").out;
    const bool left = holds(view, m_copies[0].node + " ") || holds(view, m_copies[1].node + " ");
    return !groupImported("B", copyGroup()) && left
               ? std::string("the group is gone and a disk it had stays in the view")
               : std::string();
  };
  flow.after = [this] { clearB(); };
  sweep(flow);
}

// The source volume taken out of use, and brought back from the disks the
// node recorded.
TEST_P(PluginFaultTest, AccessOff) {
  Flow flow = named("access off", "A");
  flow.before = [this] { initVol1(); };
  flow.steps = {
      {"disable_access", [this] { return plugin().disable_access(m_list->get(), 0); }, 0, {6}}};
  flow.onSource = true;
  flow.done = [this] { return !groupImported("A", "dg1"); };
  flow.after = [this] { EXPECT_EQ(0, plugin().enable_access(m_list->get(), 0, 0, 0)); };
  sweep(flow);
}

TEST_P(PluginFaultTest, AccessOn) {
  Flow flow = named("access on", "A");
  flow.before = [this] {
    initVol1();
    ASSERT_EQ(0, plugin().disable_access(m_list->get(), 0));
  };
  flow.steps = {
      {"enable_access", [this] { return plugin().enable_access(m_list->get(), 0, 0, 0); }, 0, {6}}};
  flow.onSource = true;
  flow.done = [this] {
    return volumeStarted("A", "dg1", "vol1") && checksum("A", "dg1", "vol1") == m_source &&
           ownerOf(kVol1) == "1001:1002";
  };
  sweep(flow);
}

// Two plain disks made a group with a volume, brought online from the
// disks, and made plain again.
TEST_P(PluginFaultTest, FormatOnlineUnformat) {
  const std::vector<SimDisk> plain = addDisks(2, "A", 1, "128m");
  ASSERT_EQ(2u, plain.size());
  for (const SimDisk& disk : plain) {
    m_blast->allowLun(disk.lun);
  }
  TestTextArray disks({"/dev/" + plain[0].osNames[0], "/dev/" + plain[1].osNames[0]});
  std::unique_ptr<TestPaths> made;
  std::unique_ptr<TestPaths> onlined;
  Flow flow = named("format, online, unformat", "A");
  flow.before = [&] {
    startPluginAs("A");
    made = std::make_unique<TestPaths>();
    onlined = std::make_unique<TestPaths>();
  };
  flow.steps = {
      {"format",
       [&] {
         made = std::make_unique<TestPaths>();
         return plugin().format(disks.get(), disks.count(), nullptr, nullptr, nullptr, 0x1,
                                made->paths(), made->count());
       },
       0,
       {6}},
      {"online_resource",
       [&] {
         onlined = std::make_unique<TestPaths>();
         return plugin().online_resource(disks.get(), disks.count(), nullptr, nullptr, nullptr,
                                         nullptr, 0, onlined->paths(), onlined->count());
       },
       0,
       {6}},
      {"unformat", [&] { return plugin().unformat(disks.get(), disks.count(), 0); }, 0, {1, 6}},
  };
  flow.done = [&] {
    if (made->texts().size() != 1 || onlined->texts() != made->texts()) {
      return false;
    }
    for (const SimDisk& disk : plain) {
      if (carriesQzVM(disk)) {
        return false;
      }
    }
    return !holds(qzsim::simTool(root(), "A", "qzdg list").out, "tpu_f");
  };
  // unformat asks whether the first disk carries the volume manager and
  // then clears every disk: once a failed unformat has cleared the first,
  // running it again leaves the others as they are.
  flow.leftByDesign = [&] {
    return carriesQzVM(plain[0]) || !(carriesQzVM(plain[1]))
               ? std::string()
               : "unformat tests the first disk only, which a failed unformat already cleared";
  };
  // What a flow that stopped short left on the disks is cleared with the
  // tools.
  flow.after = [&] {
    for (const std::string& line :
         qzvmfi_it::linesOf(qzsim::simTool(root(), "A", "qzdg list").out)) {
      if (line.compare(0, 5, "tpu_f") == 0) {
        qzsim::simTool(root(), "A", "qzdg destroy " + qzvmfi_it::words(line)[0]);
      }
    }
    for (const SimDisk& disk : plain) {
      if (carriesQzVM(disk)) {
        tool("A", "qzdiskunsetup -C " + disk.node);
      }
    }
  };
  sweep(flow);
}

INSTANTIATE_TEST_SUITE_P(Kinds, PluginFaultTest, kKinds,
                         [](const ::testing::TestParamInfo<const char*>& info) {
                           return std::string(info.param);
                         });

}  // namespace
