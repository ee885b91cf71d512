// Plain disks as resources: a new group and volume made on them, the group
// found on them brought online, and their volume manager identity removed.
#include "flows.h"

namespace qzfi_host {

namespace {

// Flags of the resource operations.
const int kFormatCreate = 0x1;       // a fresh disk group and volume
const int kPersistentDisks = 0x200;  // the disks stay visible: no waiting, no refresh

char* orNull(std::string& text) {
  return text.empty() ? nullptr : &text[0];
}

}  // namespace

void CFlows::reportDevice(CPathOutput& paths, const std::string& step) {
  const std::vector<std::string> devices = paths.texts();
  if (devices.empty()) {
    throw Failure{kExitFailed, step + " gave no device path"};
  }
  m_report.answer("device", devices.front(), devices.front());
}

void CFlows::checkParentPlugin(const std::string& disk, int flags) {
  std::string name = disk;
  int isParent = 0;
  StepOutcome asked = runStep(
      "isParentPgn", [&] { return m_plugin->call().isParentPgn(&name[0], &isParent, flags); });
  const int status = asked.status;
  if (status != 0) {
    finishStep(std::move(asked), false,
               "the plug-in could not tell whether " + disk + " is its own (status " +
                   std::to_string(status) + ")");
  }
  finishStep(std::move(asked), isParent != 0,
             disk + (isParent != 0 ? " carries a disk group of " : " carries nothing of ") +
                 m_plugin->name());
}

int CFlows::format() {
  m_report.begin("format " + joined(m_options.disks) +
                 (m_options.group.empty() ? "" : " as group " + m_options.group) +
                 (m_options.volume.empty() ? "" : " with volume " + m_options.volume));
  startPlugin();
  CTextArray disks(m_options.disks);
  std::string volume = m_options.volume;
  std::string options = m_options.group.empty() ? "" : "diskGroup=" + m_options.group;
  CPathOutput paths;
  StepOutcome formatted = runStep("format", [&] {
    return m_plugin->call().format(disks.get(), disks.count(), orNull(volume), nullptr,
                                   orNull(options), kFormatCreate, paths.paths(), paths.count());
  });
  const int status = formatted.status;
  const std::vector<std::string> made = paths.texts();
  finishStep(std::move(formatted), status == 0 && !made.empty(),
             status == 0 && !made.empty() ? "a new group and volume " + made.front()
                                          : "no group made on " + joined(m_options.disks) +
                                                " (status " + std::to_string(status) + ")");
  reportDevice(paths, "format");
  return m_report.finish(kExitDone);
}

int CFlows::online() {
  const int flags = m_options.persistent ? kPersistentDisks : 0;
  m_report.begin("online " + joined(m_options.disks));
  startPlugin();
  checkParentPlugin(m_options.disks.front(), flags);
  CTextArray disks(m_options.disks);
  CPathOutput paths;
  StepOutcome onlined = runStep("onlineResource", [&] {
    return m_plugin->call().onlineResource(disks.get(), disks.count(), nullptr, nullptr, nullptr,
                                           nullptr, flags, paths.paths(), paths.count());
  });
  const int status = onlined.status;
  const std::vector<std::string> devices = paths.texts();
  finishStep(std::move(onlined), status == 0 && !devices.empty(),
             status == 0 && !devices.empty()
                 ? "volume " + devices.front() + " online"
                 : "nothing brought online on " + joined(m_options.disks) + " (status " +
                       std::to_string(status) + ")");
  reportDevice(paths, "onlineResource");
  return m_report.finish(kExitDone);
}

int CFlows::unformat() {
  const int flags = m_options.persistent ? kPersistentDisks : 0;
  m_report.begin("unformat " + joined(m_options.disks));
  startPlugin();
  CTextArray disks(m_options.disks);
  requireSuccess(
      "unformat", [&] { return m_plugin->call().unformat(disks.get(), disks.count(), flags); },
      joined(m_options.disks) + " plain again", "the disks keep their identity");
  return m_report.finish(kExitDone);
}

}  // namespace qzfi_host
