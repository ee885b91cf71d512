#include "config.h"

#include "report.h"

using qzfi_pdk_4_4::CFiTraceLogFunction;
using qzvmfi_report::pluginTraceLog;

#define QZ_CONFIG_SCOPE(name) CFiTraceLogFunction scope(pluginTraceLog(), name, __LINE__, "config")

CQzVMConfig::~CQzVMConfig() {
  reset();
}

int CQzVMConfig::getParameters(const qfi_domain*, char*, qfi_confspec*) {
  QZ_CONFIG_SCOPE("getParameters");
  return 0;
}

int CQzVMConfig::get(const qfi_domain*, char*, qfi_confspec*) {
  QZ_CONFIG_SCOPE("get");
  return 0;
}

int CQzVMConfig::set(const qfi_domain*, char*, qfi_confspec*) {
  QZ_CONFIG_SCOPE("set");
  return 0;
}

int CQzVMConfig::reaccess(const qfi_domain*, qfi_confspec*) {
  QZ_CONFIG_SCOPE("reaccess");
  return 0;
}

int CQzVMConfig::getDefaultConfig(const char*, SSplitConfig&) {
  QZ_CONFIG_SCOPE("getDefaultConfig");
  return 0;
}

int CQzVMConfig::getSplitConfig(SSplitConfig&) {
  QZ_CONFIG_SCOPE("getSplitConfig");
  return 0;
}

int CQzVMConfig::isValidNodeSplitConfig() {
  QZ_CONFIG_SCOPE("isValidNodeSplitConfig");
  return 0;
}

int CQzVMConfig::extract_from_blob(qfi_blob*) {
  QZ_CONFIG_SCOPE("extract_from_blob");
  return 0;
}

int CQzVMConfig::createblob(qfi_blob*) {
  QZ_CONFIG_SCOPE("createblob");
  return 0;
}

int CQzVMConfig::reset() {
  QZ_CONFIG_SCOPE("reset");
  return 0;
}

int CQzVMConfig::resetSplitConfig() {
  QZ_CONFIG_SCOPE("resetSplitConfig");
  return 0;
}
