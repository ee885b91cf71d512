// Loading a plug-in by its file and finding its entry points by name.
#include "plugin_library.h"

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <climits>

#include <qzfi/folders.h>

namespace qzfi_host {

namespace {

const char kProgramName[] = "qzfi";
const char kReleaseMarker[] = "@(#)";

std::string hostName() {
  char name[HOST_NAME_MAX + 1] = {};
  if (gethostname(name, sizeof name - 1) != 0) {
    return std::string();
  }
  return name;
}

}  // namespace

CPluginLibrary::CPluginLibrary(const std::string& nameOrFile)
    : m_file(libraryFile(nameOrFile)), m_name(pluginNameOf(m_file)) {}

CPluginLibrary::~CPluginLibrary() {
  if (m_started && m_entry.fini != nullptr) {
    m_entry.fini();
  }
}

std::string CPluginLibrary::libraryFile(const std::string& nameOrFile) {
  if (nameOrFile.find('/') != std::string::npos) {
    return nameOrFile;
  }
  const std::string folder =
      qzfi_pdk_4_4::getInstallFolder(qzfi_pdk_4_4::CFiInstallFolder::plugins);
  if (folder.empty()) {
    throw PluginLoadError("the framework's plug-in folder is unknown: give the plug-in's file");
  }
  return folder + "/lib" + nameOrFile + ".so";
}

std::string CPluginLibrary::pluginNameOf(const std::string& file) {
  const std::string base = file.substr(file.rfind('/') + 1);
  const size_t so = base.find(".so");
  const bool versioned = so != std::string::npos && base.size() > so + 3 && base[so + 3] == '.';
  if (base.compare(0, 3, "lib") != 0 || so == std::string::npos || so <= 3 ||
      (so + 3 != base.size() && !versioned)) {
    throw PluginLoadError("cannot tell the plug-in's name from the file " + file +
                          ": a plug-in's library is named lib<name>.so");
  }
  return base.substr(3, so - 3);
}

template <class Function>
void CPluginLibrary::find(const char* operation, Function& entry) {
  const std::string symbol = m_name + "_fi_pgn_" + operation;
  entry = reinterpret_cast<Function>(dlsym(m_handle, symbol.c_str()));
  if (entry == nullptr) {
    throw PluginLoadError(m_file + " is not a plug-in of this framework: it has no entry point " +
                          symbol);
  }
}

void CPluginLibrary::load() {
  if (access(m_file.c_str(), F_OK) != 0) {
    throw PluginLoadError("no plug-in " + m_name + " at " + m_file);
  }
  m_handle = dlopen(m_file.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (m_handle == nullptr) {
    const char* why = dlerror();
    throw PluginLoadError("cannot load the plug-in " + m_file + ": " + (why != nullptr ? why : ""));
  }
  find("init", m_entry.init);
  find("fini", m_entry.fini);
  find("get_provider_info", m_entry.getProviderInfo);
  find("supports_fitype", m_entry.supportsFiType);
  find("claim", m_entry.claim);
  find("init_node", m_entry.initNode);
  find("deinit_node", m_entry.deInitNode);
  find("subobj_list", m_entry.subobjList);
  find("process_providerstate", m_entry.processProviderState);
  find("deport_tree", m_entry.deportTree);
  find("post_deport", m_entry.postDeport);
  find("import_tree", m_entry.importTreeNode);
  find("init_altnode", m_entry.initAltNode);
  find("online", m_entry.online);
  find("dispose", m_entry.dispose);
  find("disable_access", m_entry.disableAccess);
  find("enable_access", m_entry.enableAccess);
  find("format", m_entry.format);
  find("online_resource", m_entry.onlineResource);
  find("unformat", m_entry.unformat);
  find("is_parent_pgn", m_entry.isParentPgn);
  find("get_last_error", m_entry.getLastError);
  find("del_last_error", m_entry.delLastError);
}

int CPluginLibrary::start() {
  std::string host = hostName();
  std::string program = kProgramName;
  qfi_startup startup{};
  startup.host = &host[0];
  startup.program = &program[0];
  const int status = m_entry.init(&startup, &m_version, kProgramName);
  // fini tears down what init made, whether or not the plug-in started.
  m_started = true;
  return status;
}

std::string CPluginLibrary::releaseText() const {
  const auto* text = static_cast<const char*>(dlsym(m_handle, "TP_STATIC_RELEASE_STR"));
  if (text == nullptr) {
    return std::string();
  }
  std::string release(text);
  const size_t marker = release.find(kReleaseMarker);
  if (marker != std::string::npos) {
    release.erase(0, marker + sizeof kReleaseMarker - 1);
  }
  const char* blanks = " \t\n";
  release.erase(0, release.find_first_not_of(blanks));
  release.erase(release.find_last_not_of(blanks) + 1);
  return release;
}

std::vector<PluginMessage> CPluginLibrary::takeMessages() {
  std::vector<PluginMessage> messages;
  qfi_msg_info* list = nullptr;
  if (m_entry.getLastError == nullptr || m_entry.getLastError(&list) != 0) {
    return messages;
  }
  for (const qfi_msg_info* info = list; info != nullptr; info = info->next) {
    PluginMessage message;
    message.id = info->id != nullptr ? info->id : "";
    message.text = info->text != nullptr ? info->text : "";
    message.severity = info->severity;
    message.number = info->msgid;
    messages.push_back(message);
  }
  m_entry.delLastError(&list);
  // The list comes newest first.
  std::reverse(messages.begin(), messages.end());
  return messages;
}

}  // namespace qzfi_host
