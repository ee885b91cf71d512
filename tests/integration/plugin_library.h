// The plug-in as a framework runs it: the built libqzvmfi.so opened with
// dlopen from the framework's plug-in folder, its entry points found by
// name, started with its init entry point as the host acting now, on the
// simulator. The library keeps its own singletons, engine and caches, and
// writes its own trace file; a plug-in started anew on another host is a
// fresh library, as in another host's framework process.
#ifndef QZVMFI_TESTS_INTEGRATION_PLUGIN_LIBRARY_H
#define QZVMFI_TESTS_INTEGRATION_PLUGIN_LIBRARY_H

#include <dlfcn.h>
#include <sys/stat.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <qzfi/folders.h>
#include <qzfi/pdk.h>

#include "../unit/plugin/framework_records.h"
#include "plugin/exports.h"
#include "sim_host_env.h"

namespace qzvmfi_it {

using qzvmfi_test::TestNode;
using qzvmfi_test::TestNodeList;
using qzvmfi_test::TestObjids;

// The pauses that the loaded library asked for: its waits go through the C
// library's sleep, which this program provides (library_os.cc) so that
// they are counted and never slept.
std::vector<unsigned>& libraryPauses();

// Owner changes of a device node through the C library's chown, which this
// program provides too: refused for path (EPERM) until allowed again.
void refuseOwnerChange(const std::string& path);
void allowOwnerChanges();

class PluginLibrary {
 public:
  static std::string path() {
    return qzfi_pdk_4_4::getInstallFolder(qzfi_pdk_4_4::CFiInstallFolder::plugins) +
           "/libqzvmfi.so";
  }

  PluginLibrary() : m_handle(dlopen(path().c_str(), RTLD_NOW | RTLD_LOCAL)) {}
  ~PluginLibrary() {
    if (fini != nullptr) {
      fini();
    }
    if (m_handle != nullptr) {
      dlclose(m_handle);
    }
  }
  PluginLibrary(const PluginLibrary&) = delete;
  PluginLibrary& operator=(const PluginLibrary&) = delete;

  bool loaded() const { return m_handle != nullptr; }

  // The messages pushed since the last call, oldest first, each as its
  // identifier followed by its arguments: "ID [arg] [arg]".
  std::vector<std::string> lastErrors() {
    qfi_msg_info* list = nullptr;
    std::vector<std::string> messages;
    if (get_last_error(&list) != 0) {
      return messages;
    }
    for (const qfi_msg_info* info = list; info != nullptr; info = info->next) {
      std::string text = info->id != nullptr ? info->id : "";
      for (int i = 0; i < info->nargs; ++i) {
        text += std::string(" [") + info->args[i] + "]";
      }
      messages.push_back(text);
    }
    del_last_error(&list);
    return messages;
  }

  // The paths of a node's sub-objects, as the framework lists them.
  std::vector<std::string> subObjects(qfi_domain* node) {
    qzfi_objid** ids = nullptr;
    int count = 0;
    std::vector<std::string> names;
    if (subobj_list(node, &ids, &count) != 0) {
      return names;
    }
    for (int i = 0; i < count; ++i) {
      names.push_back(ids[i]->name);
      qzfi_free_objid(ids[i]);
    }
    qzfi_free_buf(ids, sizeof(qzfi_objid*) * static_cast<size_t>(count));
    return names;
  }

  // The node's provider state saved into a blob: its text.
  std::string savedState(qfi_domain* node) {
    qfi_blob blob{};
    EXPECT_EQ(0, process_providerstate(node, &blob, QFI_PS_SAVE));
    std::string text = blob.data != nullptr ? blob.data : "";
    qzfi_free_buf(blob.data, blob.len);
    return text;
  }

  // The node's provider state restored from a blob's text.
  int restoreState(qfi_domain* node, const std::string& text) {
    std::string bytes = text;
    qfi_blob blob{bytes.size() + 1, &bytes[0], 1};
    return process_providerstate(node, &blob, QFI_PS_RESTORE);
  }

 private:
  void* m_handle;

  template <class Entry>
  Entry find(const char* name) const {
    return m_handle != nullptr ? reinterpret_cast<Entry>(dlsym(m_handle, name)) : nullptr;
  }

 public:
  // The entry points the framework's flows call, found by their names.
#define QZ_PLUGIN_ENTRY(name)              \
  decltype(&::qzvmfi_fi_pgn_##name) name = \
      find<decltype(&::qzvmfi_fi_pgn_##name)>("qzvmfi_fi_pgn_" #name)
  QZ_PLUGIN_ENTRY(init);
  QZ_PLUGIN_ENTRY(fini);
  QZ_PLUGIN_ENTRY(claim);
  QZ_PLUGIN_ENTRY(init_node);
  QZ_PLUGIN_ENTRY(check_node_existence);
  QZ_PLUGIN_ENTRY(subobj_list);
  QZ_PLUGIN_ENTRY(process_providerstate);
  QZ_PLUGIN_ENTRY(deport_tree);
  QZ_PLUGIN_ENTRY(post_deport);
  QZ_PLUGIN_ENTRY(disable_access);
  QZ_PLUGIN_ENTRY(enable_access);
  QZ_PLUGIN_ENTRY(online);
  QZ_PLUGIN_ENTRY(dispose);
  QZ_PLUGIN_ENTRY(import_tree);
  QZ_PLUGIN_ENTRY(init_altnode);
  QZ_PLUGIN_ENTRY(build_alttree);
  QZ_PLUGIN_ENTRY(format);
  QZ_PLUGIN_ENTRY(unformat);
  QZ_PLUGIN_ENTRY(online_resource);
  QZ_PLUGIN_ENTRY(is_parent_pgn);
  QZ_PLUGIN_ENTRY(get_last_error);
  QZ_PLUGIN_ENTRY(del_last_error);
#undef QZ_PLUGIN_ENTRY
};

// Simulated hosts on which the plug-in runs as a framework runs it.
class PluginHostTest : public SimHostTest {
 protected:
  void TearDown() override {
    m_plugin.reset();
    allowOwnerChanges();
    libraryPauses().clear();
    SimHostTest::TearDown();
  }

  // The test process becomes host, and the plug-in is loaded and started
  // there afresh.
  void startPluginAs(const std::string& host) {
    m_plugin.reset();
    actAs(host);
    m_host = host;
    m_plugin = std::make_unique<PluginLibrary>();
    ASSERT_TRUE(m_plugin->loaded()) << dlerror();
    qfi_version version{};
    ASSERT_EQ(0, m_plugin->init(nullptr, &version, "qzfi-it"));
  }

  PluginLibrary& plugin() { return *m_plugin; }

  // The plug-in's trace file of the host acting now.
  std::string pluginTrace() const {
    const char* folder = std::getenv("QZFI_LOG_DIR");
    return folder != nullptr ? qztest::readFile(std::string(folder) + "/qzvmfi.log") : "";
  }
  bool pluginTraced(const std::string& text) const { return holds(pluginTrace(), text); }

  // Owner and group of a device node of the host acting now, "uid:gid".
  static std::string ownerOf(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
      return "missing";
    }
    return std::to_string(status.st_uid) + ":" + std::to_string(status.st_gid);
  }

  std::string m_host;
  std::unique_ptr<PluginLibrary> m_plugin;
  // The plug-in traces everything, down to its details.
  qztest::ScopedEnv m_traceLevel{"QZFI_TRACE_LEVEL", std::string("6")};
};

}  // namespace qzvmfi_it

#endif  // QZVMFI_TESTS_INTEGRATION_PLUGIN_LIBRARY_H
