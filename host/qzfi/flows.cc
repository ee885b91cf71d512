// Running a command: the plug-in loaded and started, each call a step, and
// the record read and written around them.
#include "flows.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>

#include <qzfi/folders.h>

namespace qzfi_host {

namespace {

using Json = nlohmann::ordered_json;

std::string versionText(const qfi_version& version) {
  return std::to_string(version.major) + "." + std::to_string(version.minor) + "." +
         std::to_string(version.micro) + "." + std::to_string(version.build);
}

const char* accessTypeName(int32_t type) {
  switch (type) {
    case QFI_ACCESS_NONE:
      return "none";
    case QFI_ACCESS_READ:
      return "read";
    case QFI_ACCESS_WRITE:
      return "write";
    default:
      return "unknown";
  }
}

// Why a command does not follow the step the record is at.
std::string refusal(const CSnapshotRecord& record, const std::vector<RecordStep>& allowed,
                    Command command) {
  const std::string& copy = record.alternate.object;
  if (record.step == RecordStep::released && command == Command::release) {
    return "the copy " + copy + " was released already";
  }
  if (record.step == RecordStep::imported && command == Command::import) {
    return "the copy " + copy + " is imported already: release it, or move it on first";
  }
  if (record.step == RecordStep::moved &&
      (command == Command::release || command == Command::move)) {
    return "the copy " + copy + " was moved on: import it on the host that has its disks first";
  }
  std::vector<std::string> names;
  for (RecordStep step : allowed) {
    names.emplace_back(stepName(step));
  }
  return std::string("the record is at the step \"") + stepName(record.step) + "\", not " +
         joined(names, " or ");
}

// Why a plug-in did not start: its init status and, when the folder of the
// plug-ins' configuration files is missing (a plug-in cannot start without
// its file), which folder and the variable that names another.
std::string startFailure(const std::string& plugin, int status) {
  std::string why =
      "the plug-in " + plugin + " did not start (init returned " + std::to_string(status) + ")";
  const std::string config = qzfi_pdk_4_4::getInstallFolder(qzfi_pdk_4_4::CFiInstallFolder::config);
  std::error_code error;
  if (!std::filesystem::is_directory(config, error)) {
    why += ": its configuration folder " + config +
           " does not exist; make it, or name another in " + qzfi_pdk_4_4::kConfigFolderVariable;
  }
  return why;
}

}  // namespace

CFlows::CFlows(const Options& options, CReport& report, CAgentState* agent)
    : m_options(options),
      m_report(report),
      m_watch([this](const std::string& line) { m_report.progress(line); }),
      m_agent(agent) {}

// The mark goes last, after the command's line in the journal: a kill before
// it leaves the command found stopped by the next one.
CFlows::~CFlows() {
  unmarkRecord();
}

int CFlows::run() {
  try {
    m_watch.install();
    switch (m_options.command) {
      case Command::info:
        return info();
      case Command::claim:
        return claim();
      case Command::prepare:
        return prepare();
      case Command::deport:
        return deport();
      case Command::import:
        return importCopy();
      case Command::move:
        return move();
      case Command::release:
        return release();
      case Command::access:
        return access();
      case Command::format:
        return format();
      case Command::online:
        return online();
      case Command::unformat:
        return unformat();
      case Command::help:
      case Command::version:
      case Command::serve:
      case Command::status:
      case Command::list:
      case Command::journal:
        break;
    }
    return m_report.finish(kExitUsage, "not a flow: " + m_options.commandName);
  } catch (const Failure& failure) {
    return m_report.finish(failure.code, failure.why);
  } catch (const PluginLoadError& error) {
    return m_report.finish(kExitPluginLoad, error.what());
  } catch (const RecordError& error) {
    return m_report.finish(kExitRecord, error.what());
  }
}

void CFlows::loadPlugin() {
  if (m_agent != nullptr) {
    m_plugin = &m_agent->plugin();
    return;
  }
  m_ownPlugin = std::make_unique<CPluginLibrary>(m_options.plugin);
  m_plugin = m_ownPlugin.get();
  m_plugin->load();
}

StepOutcome CFlows::initStep() {
  if (m_agent != nullptr) {
    return runStep("init", [] { return 0; });
  }
  return runStep("init", [this] { return m_plugin->start(); });
}

void CFlows::startPlugin() {
  loadPlugin();
  startLoadedPlugin();
}

void CFlows::startLoadedPlugin() {
  StepOutcome outcome = initStep();
  if (outcome.status != 0) {
    const std::string why = startFailure(m_plugin->name(), outcome.status);
    outcome.ok = false;
    outcome.detail = why;
    m_report.step(outcome);
    throw Failure{kExitPluginStart, why};
  }
  const std::string version = versionText(m_plugin->interfaceVersion());
  finishStep(
      outcome, true,
      "started " + m_plugin->name() + " (interface version " + version + ")" +
          (m_agent != nullptr ? " once, by the agent (pid " + std::to_string(getpid()) + ")" : ""));
}

StepOutcome CFlows::runStep(const std::string& name, const std::function<int()>& call) {
  StepOutcome outcome;
  outcome.name = name;
  m_watch.beginStep(name, !m_options.quiet);
  const auto start = std::chrono::steady_clock::now();
  outcome.status = call();
  outcome.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  outcome.counts = m_watch.endStep();
  if (m_plugin) {
    outcome.messages = m_plugin->takeMessages();
  }
  return outcome;
}

void CFlows::finishStep(StepOutcome outcome, bool ok, const std::string& detail) {
  outcome.ok = ok;
  outcome.detail = detail;
  const std::string name = outcome.name;
  m_report.step(std::move(outcome));
  if (!ok) {
    throw Failure{kExitFailed, name + " failed: " + detail};
  }
}

void CFlows::requireSuccess(const std::string& name, const std::function<int()>& call,
                            const std::string& done, const std::string& failure) {
  StepOutcome outcome = runStep(name, call);
  const bool ok = outcome.status == 0;
  const std::string status = std::to_string(outcome.status);
  finishStep(std::move(outcome), ok, ok ? done : failure + " (status " + status + ")");
}

void CFlows::restoreNode(CNode& node, const ProviderState& state, const std::string& what) {
  StepOutcome outcome = runStep("processProviderState", [&] { return node.restore(state); });
  if (outcome.status == QFI_E_INVALID) {
    std::vector<std::string> reasons;
    for (const PluginMessage& message : outcome.messages) {
      reasons.push_back(message.text);
    }
    const std::string why = "the plug-in refused " + what + " of the record " + m_options.record +
                            (reasons.empty() ? "" : ": " + joined(reasons, " ")) +
                            "; nothing was changed";
    outcome.ok = false;
    outcome.detail = why;
    m_report.step(std::move(outcome));
    throw Failure{kExitRecord, why};
  }
  const bool ok = outcome.status == 0;
  const std::string status = std::to_string(outcome.status);
  finishStep(
      std::move(outcome), ok,
      ok ? what + " restored from the record (" + std::to_string(state.bytes.size()) + " bytes)"
         : what + " could not be restored from the record (status " + status + ")");
}

ProviderState CFlows::saveNode(CNode& node, const std::string& what) {
  ProviderState state;
  StepOutcome outcome = runStep("processProviderState", [&] { return node.save(state); });
  const bool ok = outcome.status == 0 && !state.empty();
  const std::string status = std::to_string(outcome.status);
  finishStep(std::move(outcome), ok,
             ok ? what + " saved (" + std::to_string(state.bytes.size()) + " bytes)"
                : what + " could not be saved (status " + status + ", " +
                      std::to_string(state.bytes.size()) + " bytes)");
  return state;
}

CNode& CFlows::recordNode(NodeRole role, const std::string& object, const ProviderState& state,
                          const std::string& what) {
  std::unique_ptr<CNode> kept;
  if (m_agent != nullptr) {
    kept = m_agent->take(recordKey(), role, object, state);
  }
  if (!kept) {
    CNode& node = newNode(role, object);
    restoreNode(node, state, what);
    return node;
  }
  StepOutcome outcome = runStep("node", [] { return 0; });
  finishStep(std::move(outcome), true,
             what + " kept by the agent, as in the record (" + std::to_string(state.bytes.size()) +
                 " bytes)");
  m_nodes[role] = std::move(kept);
  return *m_nodes[role];
}

CNode& CFlows::newNode(NodeRole role, const std::string& object) {
  m_nodes[role].reset();
  m_nodes[role] = std::make_unique<CNode>(*m_plugin, object);
  return *m_nodes[role];
}

std::string CFlows::recordKey() const {
  if (m_recordLock.held()) {
    return m_recordLock.file();
  }
  return realRecordFile(m_options.record);
}

CSnapshotRecord CFlows::loadRecord(const std::vector<RecordStep>& allowed) {
  // A record that is not there is named as such by the loading.
  if (::access(m_options.record.c_str(), F_OK) == 0) {
    m_recordLock.acquire(m_options.record);
  }
  const std::string& file = m_recordLock.held() ? m_recordLock.file() : m_options.record;
  CSnapshotRecord record = CSnapshotRecord::load(file, m_options.record);
  const std::string plugin =
      CPluginLibrary::pluginNameOf(CPluginLibrary::libraryFile(m_options.plugin));
  if (record.plugin != plugin) {
    throw Failure{kExitRecord, "the record " + m_options.record + " was made through the plug-in " +
                                   record.plugin + ", not " + plugin};
  }
  if (std::find(allowed.begin(), allowed.end(), record.step) == allowed.end()) {
    throw Failure{kExitRecord, refusal(record, allowed, m_options.command) + " (record " +
                                   m_options.record + "); nothing was changed"};
  }
  checkHost(record);
  CSnapshotRecord::checkWritable(file, false);
  markRecord(file, record);
  return record;
}

long long CFlows::requester() const {
  return m_agent != nullptr ? m_agent->clientUid() : static_cast<long long>(getuid());
}

void CFlows::markRecord(const std::string& file, const CSnapshotRecord& record) {
  std::optional<CommandMark> left = readCommandMark(file);
  if (left && !left->finishedIn(record)) {
    m_stoppedBefore = std::move(left);
  }
  CommandMark mark;
  mark.command = m_options.commandName;
  mark.arguments = m_options.arguments;
  mark.pid = getpid();
  mark.uid = requester();
  mark.user = userName(mark.uid);
  mark.host = m_host.known() ? m_host : thisHost();
  mark.started = utcNow();
  mark.stepAtStart = stepName(record.step);
  mark.eventsAtStart = record.events.size();
  writeCommandMark(file, mark);
  m_markedRecord = file;
}

void CFlows::unmarkRecord() {
  if (m_markedRecord.empty()) {
    return;
  }
  try {
    removeCommandMark(m_markedRecord);
  } catch (const RecordError& error) {
    m_report.progress(std::string("warning: ") + error.what());
  }
  m_markedRecord.clear();
}

void CFlows::checkHost(CSnapshotRecord& record) {
  m_host = thisHost();
  HostIdentity* expected = nullptr;
  std::string role;
  switch (m_options.command) {
    case Command::deport:
    case Command::access:
      expected = &record.sourceHost;
      role = "the source's host (where prepare ran)";
      break;
    case Command::move:
    case Command::release:
      expected = &record.alternate.host;
      role = "the host that holds the copy (where import ran)";
      break;
    default:
      return;
  }
  // A record written before hosts were recorded: this command names its host.
  if (!expected->known()) {
    *expected = m_host;
    return;
  }
  if (sameHost(*expected, m_host)) {
    m_hostProven = true;
    return;
  }
  const std::string& was = m_options.thisHostWas;
  const std::string recordName = " (record " + m_options.record + ")";
  const std::string nothing = "; nothing was changed" + recordName;
  if (!was.empty()) {
    if (was != expected->name && was != expected->machineId) {
      throw Failure{kExitRecord, "--this-host-was " + was +
                                     " names neither the host name nor the machine id of " + role +
                                     ", " + hostText(*expected) + "; this is host " +
                                     hostText(m_host) + nothing};
    }
    m_recordedHost = *expected;
    m_takenOn = "this host " + hostText(m_host) + " taken on as " + hostText(*expected) +
                " (--this-host-was " + was + ")";
    *expected = m_host;
    return;
  }
  const std::string command = m_options.commandName;
  const std::string takeOn = "--this-host-was " + expected->name;
  if (expected->name == m_host.name && expected->machineId != m_host.machineId) {
    throw Failure{kExitRecord,
                  command + " runs on " + role + ", " + hostText(*expected) +
                      "; this host has the same name but the machine id " + m_host.machineId +
                      ": if it is that host installed anew, take it on with " + takeOn +
                      "; else run " + command + " on " + expected->name + nothing};
  }
  if (expected->machineId == m_host.machineId) {
    throw Failure{kExitRecord, command + " runs on " + role + ", " + hostText(*expected) +
                                   "; this host has its machine id but the name " + m_host.name +
                                   ": if it was renamed, take it on with " + takeOn + nothing};
  }
  throw Failure{kExitRecord, command + " runs on " + role + ", " + hostText(*expected) +
                                 ", not on this host " + hostText(m_host) + ": run it on " +
                                 expected->name +
                                 "; if this host is that one with a new identity (installed "
                                 "anew or renamed), take it on with " +
                                 takeOn + nothing};
}

void CFlows::saveRecord(CSnapshotRecord& record, const std::string& event, bool exclusive) {
  if (!m_host.known()) {
    m_host = thisHost();
  }
  record.note(m_options.commandName, m_takenOn.empty() ? event : m_takenOn + "; " + event, m_host);
  // The real file is replaced, never a symbolic link to it.
  record.save(m_recordLock.held() ? m_recordLock.file() : realRecordFile(m_options.record),
              exclusive, &m_recordLock);
  m_report.result("record", m_options.record, "record: " + m_options.record);
  if (m_agent == nullptr) {
    return;
  }
  const std::string key = recordKey();
  if (record.step == RecordStep::released) {
    m_agent->forget(key);
    return;
  }
  auto keep = [&](NodeRole role, const ProviderState& state) {
    auto node = m_nodes.find(role);
    if (node != m_nodes.end() && node->second) {
      m_agent->keep(key, role, std::move(node->second), state);
    }
  };
  keep(NodeRole::source, record.state);
  if (record.hasAlternate) {
    keep(NodeRole::copy, record.alternate.state);
  }
}

// Nothing but fini is called after an init that failed: the plug-in and
// its file are told, and why it did not start.
int CFlows::info() {
  loadPlugin();
  m_report.begin("info: plug-in " + m_plugin->name() + " at " + m_plugin->file());
  const std::string release = m_plugin->releaseText();
  try {
    startLoadedPlugin();
  } catch (const Failure&) {
    reportLibrary();
    reportRelease(release);
    m_report.result("started", false, "started:           no");
    throw;
  }
  const std::string version = versionText(m_plugin->interfaceVersion());

  qfi_provider_list* providers = nullptr;
  StepOutcome providerStep =
      runStep("getProviderInfo", [&] { return m_plugin->call().getProviderInfo(&providers); });
  Json providerJson = Json::array();
  std::vector<std::string> providerTexts;
  for (const qfi_provider_list* item = providers; item != nullptr; item = item->next) {
    std::vector<std::string> kinds;
    for (int i = 0; i < item->nnames; ++i) {
      kinds.emplace_back(item->names[i] != nullptr ? item->names[i] : "");
    }
    const std::string provider = item->provider != nullptr ? item->provider : "";
    providerJson.push_back({{"provider", provider}, {"handles", kinds}});
    providerTexts.push_back(provider + " (handles " + joined(kinds, ", ") + ")");
  }
  qzfi_free_providerlist(providers);
  const bool providerOk = providerStep.status == 0 && !providerTexts.empty();
  const std::string providerStatus = std::to_string(providerStep.status);
  finishStep(std::move(providerStep), providerOk,
             providerOk ? joined(providerTexts, "; ")
                        : "no provider information (status " + providerStatus + ")");

  CNode probe(*m_plugin, "");
  probe.domain()->access->type = -1;
  char fiType[] = "";
  StepOutcome typeStep = runStep(
      "supportsFiType", [&] { return m_plugin->call().supportsFiType(probe.domain(), fiType); });
  const int32_t type = probe.domain()->access->type;
  const std::string types = type == -1 ? std::string() : accessTypeName(type);
  const bool typeOk = typeStep.status == 0;
  const std::string typeStatus = std::to_string(typeStep.status);
  finishStep(std::move(typeStep), typeOk,
             !typeOk         ? "status " + typeStatus
             : types.empty() ? "no access type chosen"
                             : "access type " + types);

  reportLibrary();
  m_report.result("providers", providerJson, "provider:          " + joined(providerTexts, "; "));
  m_report.result("interface_version", version, "interface version: " + version);
  reportRelease(release);
  m_report.result("fi_access_types", types.empty() ? Json::array() : Json::array({types}),
                  "fi access types:   " + (types.empty() ? "-" : types));
  m_report.result("started", true);
  return m_report.finish(kExitDone);
}

void CFlows::reportLibrary() {
  m_report.result("plugin", m_plugin->name(), "plug-in:           " + m_plugin->name());
  m_report.result("file", m_plugin->file(), "file:              " + m_plugin->file());
}

void CFlows::reportRelease(const std::string& release) {
  m_report.result("release", release, "release:           " + (release.empty() ? "-" : release));
}

}  // namespace qzfi_host
