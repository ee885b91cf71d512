// A plug-in loaded the way the framework loads one: its library opened with
// dlopen and every entry point qzfi calls found by name,
// "<name>_fi_pgn_<operation>". qzfi never links a plug-in.
#ifndef QZFI_HOST_PLUGIN_LIBRARY_H
#define QZFI_HOST_PLUGIN_LIBRARY_H

#include <stdint.h>

#include <stdexcept>
#include <string>
#include <vector>

#include <qzfi/records.h>

namespace qzfi_host {

// The entry points qzfi calls, with the framework's signatures.
struct PluginEntryPoints {
  int32_t (*init)(qfi_startup*, qfi_version*, const char*) = nullptr;
  void (*fini)() = nullptr;
  int32_t (*getProviderInfo)(qfi_provider_list**) = nullptr;
  int32_t (*supportsFiType)(qfi_domain*, char*) = nullptr;
  int32_t (*claim)(qzfi_objid*, qzfi_objid***, int*) = nullptr;
  int32_t (*initNode)(qfi_domain*, qfi_domain**, int, qzfi_objid*) = nullptr;
  int32_t (*deInitNode)(qfi_domain*) = nullptr;
  int32_t (*subobjList)(qfi_domain*, qzfi_objid***, int*) = nullptr;
  int32_t (*processProviderState)(qfi_domain*, qfi_blob*, qfi_op_providerstate) = nullptr;
  int32_t (*deportTree)(qfi_domain*, qfi_domain*, qfi_accessnode*) = nullptr;
  int32_t (*postDeport)(qfi_domain*, qfi_domain*) = nullptr;
  int32_t (*importTreeNode)(qfi_domain*, qzfi_objid**, qzfi_objid**, int, qzfi_objid**) = nullptr;
  int32_t (*initAltNode)(qfi_domain*, qfi_domain*, qfi_domain*, bool) = nullptr;
  int32_t (*online)(qfi_domain*, qfi_domain*, int, qfi_disposition) = nullptr;
  int32_t (*dispose)(qfi_domain*, qfi_domain*, qfi_splitnode*, qfi_disposition) = nullptr;
  int32_t (*disableAccess)(qfi_node_subobj_list*, long) = nullptr;
  int32_t (*enableAccess)(qfi_node_subobj_list*, long, int, int) = nullptr;
  int32_t (*format)(char**, int, char*, char*, char*, int, char***, int*) = nullptr;
  int32_t (*onlineResource)(char**, int, char*, char*, char*, char*, int, char***, int*) = nullptr;
  int32_t (*unformat)(char**, int, int) = nullptr;
  int32_t (*isParentPgn)(char*, int*, int) = nullptr;
  int32_t (*getLastError)(qfi_msg_info**) = nullptr;
  int32_t (*delLastError)(qfi_msg_info**) = nullptr;
};

// A message the plug-in pushed, with its catalogue text.
struct PluginMessage {
  std::string id;    // MSG_ERROR_* identifier
  std::string text;  // the catalogue text with its arguments
  int severity = 0;
  int number = 0;  // catalogue number
};

// The plug-in cannot be found, opened or used: what() says which and why.
class PluginLoadError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class CPluginLibrary {
 public:
  // nameOrFile: a plug-in name, looked up as lib<name>.so in the framework's
  // plug-in folder, or the path of a library (anything holding a '/'),
  // whose plug-in name is taken from its file name lib<name>.so.
  explicit CPluginLibrary(const std::string& nameOrFile);
  // Finalises a started plug-in. The library stays mapped until the process
  // ends: its singletons' destructors run at exit.
  ~CPluginLibrary();
  CPluginLibrary(const CPluginLibrary&) = delete;
  CPluginLibrary& operator=(const CPluginLibrary&) = delete;

  // Opens the library and finds every entry point; throws PluginLoadError,
  // naming the first one missing.
  void load();
  // The plug-in's init entry point with a start-up record of this program;
  // its status (0 when it started). The interface version it wrote back is
  // kept either way.
  int start();
  bool started() const { return m_started; }
  const qfi_version& interfaceVersion() const { return m_version; }

  const PluginEntryPoints& call() const { return m_entry; }
  const std::string& name() const { return m_name; }
  const std::string& file() const { return m_file; }
  // The release text of the library ("Brovik_1.0.0"), empty without one.
  std::string releaseText() const;

  // The messages the plug-in pushed since the last call, oldest first; the
  // plug-in's list is emptied.
  std::vector<PluginMessage> takeMessages();

  // lib<name>.so of name in the framework's plug-in folder, or the file.
  static std::string libraryFile(const std::string& nameOrFile);
  // The plug-in name of a library file named lib<name>.so (or
  // lib<name>.so.<version>); throws PluginLoadError otherwise.
  static std::string pluginNameOf(const std::string& file);

 private:
  template <class Function>
  void find(const char* operation, Function& entry);

  std::string m_file;
  std::string m_name;
  void* m_handle = nullptr;
  PluginEntryPoints m_entry;
  qfi_version m_version{};
  bool m_started = false;
};

}  // namespace qzfi_host

#endif  // QZFI_HOST_PLUGIN_LIBRARY_H
