// The engine itself and volume activation: the volume sets, DCO volumes and
// volumes of one volume started and stopped, and the object id of a started
// volume.
#include "engine.h"

#include <stdio.h>
#include <string.h>

#include "engine/internal.h"

using namespace qzvm_engine_internal;
using qzvmfi_report::pushError;

CQzVMEngine* CQzVMEngine::getInstance() {
  static CQzVMEngine engine;
  return &engine;
}

CQzVMEngine::CQzVMEngine() {
  registerTraceLog(qzvmfi_report::pluginTraceLog());
}

CQzVMEngine::~CQzVMEngine() = default;

void CQzVMEngine::registerTraceLog(const qzfi_pdk_4_4::CFiTraceLogPtr& log) {
  CFiTraceable::registerTraceLog(log);
  m_cliTool.registerTraceLog(log);
  m_support.registerTraceLog(log);
}

void CQzVMEngine::forgetListings() {
  m_support.clearCaches();
  m_builtGroups.clear();
}

int CQzVMEngine::initEngine() {
  QZ_ENGINE_ENTER("initEngine");
  return qzvmfi_report::reportingExceptions({"initEngine", kSource, __LINE__}, 6, [this] {
    CQzVMConfiguration configuration;
    configuration.checkConfigFile(1);
    SQzVMCliPath read;
    configuration.importCliPathInfo(read);
    m_cliPath.supportDir = read.supportDir;
    m_cliPath.commandDir = read.commandDir;
    m_cliPath.otherDir = read.otherDir;
    return 0;
  });
}

// ===== volume activation =====

int CQzVMEngine::getQzVMObjects(const std::string& path, CQzVMData* data) {
  QZ_ENGINE_ENTER("getQzVMObjects");
  if (data == nullptr) {
    QZ_TRACE(m_traceLog, 1, "No QzVM data");
    return 6;
  }
  std::string dg;
  std::string volume;
  m_support.extractDGAndVol(path, dg, volume);
  QZ_TRACE(m_traceLog, 3,
           "CQzVMEngine::getQzVMObjects - Checking for volume and/or dco volume for object= %s",
           path.c_str());
  Names vsets;
  Names volumes;
  Names dcoVolumes;
  Names output;
  if (m_support.getQzVMObjects(vsets, volumes, dcoVolumes, dg, volume, &output) != 0) {
    pushError("MSG_ERROR_COMMAND_FAILED",
              {"getQzVMObjects", path, qzvmfi_report::joinLines(output)}, kSource, __LINE__);
    return 5;
  }
  Names& vsetList = data->vtList();
  Names& volumeList = data->vList();
  vsetList.insert(vsetList.end(), vsets.begin(), vsets.end());
  volumeList.insert(volumeList.end(), volumes.begin(), volumes.end());
  volumeList.insert(volumeList.end(), dcoVolumes.begin(), dcoVolumes.end());
  if (!vsets.empty() || !volumes.empty() || !dcoVolumes.empty()) {
    data->setObjectsFound(true);
  }
  return 0;
}

int CQzVMEngine::activeVol(const std::string& dg, const std::string& volume, CQzVMData* data) {
  QZ_ENGINE_ENTER("activeVol");
  if (data == nullptr) {
    QZ_TRACE(m_traceLog, 1, "CQzVMEngine::activeVol - no private data.");
    return 6;
  }
  // A set that will not start must not keep the volume from starting.
  for (const std::string& vset : data->vtList()) {
    onlineVSet(dg, vset, data);
  }
  Names vsets;
  Names volumes;
  Names dcoVolumes;
  int status = m_support.getQzVMObjects(vsets, volumes, dcoVolumes, dg, volume);
  if (status == 0) {
    if (!dcoVolumes.empty()) {
      m_support.startDCOVols(dg, dcoVolumes, "gen");
    }
    status = m_support.startDCOVols(dg, volumes, "");
  }
  if (status != 0) {
    QZ_TRACE(m_traceLog, 1, "CQzVMEngine::activeVol - start of valume failed dg=%s volume=%s",
             dg.c_str(), volume.c_str());
    pushError("MSG_ERROR_UNABLE_TO_ACTIVATE_DISKGROUP", {dg, volume}, kSource, __LINE__);
  }
  return status;
}

// What is stopped is what the private data lists, whatever the volume.
int CQzVMEngine::deactiveVol(const std::string& dg, const std::string& /*volume*/,
                             CQzVMData* data) {
  QZ_ENGINE_ENTER("deactiveVol");
  if (data == nullptr) {
    QZ_TRACE(m_traceLog, 1, "CQzVMEngine::deactiveVol - no private data.");
    return 6;
  }
  for (const std::string& vset : data->vtList()) {
    offlineVSet(dg, vset, data);
  }
  return m_support.stopDCOVols(dg, data->vList());
}

int CQzVMEngine::runVSetCommand(const std::string& dg, const std::string& vset,
                                const char* action) {
  Names output;
  return m_cliTool.run(
      CQzVMCommandLine(m_cliPath.commandDir, "qzvset ").add(" -g ", dg, action, vset), output);
}

int CQzVMEngine::onlineVSet(const std::string& dg, const std::string& vset, CQzVMData* /*data*/) {
  QZ_ENGINE_ENTER("onlineVSet");
  bool on = false;
  if (int status = m_support.isVsetOn(dg, vset, on)) {
    return status;
  }
  if (!on && runVSetCommand(dg, vset, " start ") != 0) {
    QZ_TRACE(m_traceLog, 1, "Error in taking VSet online");
    return 5;
  }
  return 0;
}

int CQzVMEngine::offlineVSet(const std::string& dg, const std::string& vset, CQzVMData* /*data*/) {
  QZ_ENGINE_ENTER("offlineVSet");
  bool on = false;
  if (int status = m_support.isVsetOn(dg, vset, on)) {
    return status;
  }
  if (on && runVSetCommand(dg, vset, " stop ") != 0) {
    QZ_TRACE(m_traceLog, 1, "Error in offlining VSet");
    return 5;
  }
  return 0;
}

int CQzVMEngine::activeVolAndCreateObjid(const std::string& dg, const std::string& volume,
                                         CQzVMData* data, qzfi_objid** objid, bool raw) {
  QZ_ENGINE_ENTER("activeVolAndCreateObjid");
  if (activeVol(dg, volume, data) != 0) {
    return 6;
  }
  if (objid != nullptr) {
    *objid = nullptr;
    init_internal_objid(objid, dg, volume, raw);
  }
  if (objid == nullptr || *objid == nullptr) {
    QZ_TRACE(m_traceLog, 1,
             "CQzVMEngine::activeVolAndCreateObjid - unable to create internal object");
    return 1024;
  }
  return 0;
}

void CQzVMEngine::init_internal_objid(qzfi_objid** objid, const std::string& dg,
                                      const std::string& volume, bool raw) {
  QZ_ENGINE_ENTER("init_internal_objid");
  // A volume given as a path has no name of its own under the group.
  if (objid == nullptr || dg.empty() || volume.empty() || volume[0] == '/') {
    return;
  }
  char name[1024];
  snprintf(name, sizeof name, "%s/%s/%s", raw ? "/dev/qz/rdsk" : "/dev/qz/dsk", dg.c_str(),
           volume.c_str());
  *objid = qzfi_get_objid(name, static_cast<int>(strlen(name) + 1), 2);
}
