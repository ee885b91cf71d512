// Drives a plug-in through an installed framework:
//   tinyfi_host folders                  the framework's plug-in and catalogue folders
//   tinyfi_host message PROVIDER ID [ARG...]   a catalogue text with its arguments
//   tinyfi_host load FILE [PATH...]      load a plug-in, claim each PATH
#include <dlfcn.h>
#include <qzfi/pdk.h>

#include <cstdio>
#include <string>
#include <vector>

using namespace qzfi_pdk_4_4;

namespace {

int folders() {
  std::printf("plugins %s\n", getInstallFolder(CFiInstallFolder::plugins).c_str());
  std::printf("catalogs %s\n", getInstallFolder(CFiInstallFolder::catalogs).c_str());
  return 0;
}

int message(const char* provider, const char* id, const std::vector<std::string>& args) {
  CFiMessageCatalogFactory catalog("root", provider);
  std::vector<icu::Formattable> values;
  for (const std::string& arg : args) {
    values.emplace_back(icu::UnicodeString::fromUTF8(arg));
  }
  CFiIcuMessage text(id, values.data(), static_cast<int>(values.size()), 3, "tinyfi_host", 0);
  tstring resolved;
  if (!catalog.format(text, tstring(), resolved)) {
    std::fprintf(stderr, "%s: no %s in the catalogue\n", provider, id);
    return 1;
  }
  std::printf("%s\n", resolved.c_str());
  return 0;
}

using ClaimFunction = int (*)(qzfi_objid*, qzfi_objid***, int*);

int load(const char* file, const std::vector<std::string>& paths) {
  void* plugin = dlopen(file, RTLD_NOW | RTLD_LOCAL);
  if (plugin == nullptr) {
    std::fprintf(stderr, "%s\n", dlerror());
    return 1;
  }
  auto* name = static_cast<const char*>(dlsym(plugin, "cfi_pgn_name_str"));
  std::printf("loaded %s\n", name != nullptr ? name : file);
  if (paths.empty()) {
    return 0;
  }
  auto claim = reinterpret_cast<ClaimFunction>(
      name != nullptr ? dlsym(plugin, (std::string(name) + "_fi_pgn_claim").c_str()) : nullptr);
  if (claim == nullptr) {
    std::fprintf(stderr, "%s exports no claim\n", file);
    return 1;
  }
  for (const std::string& path : paths) {
    qzfi_objid* id = qzfi_get_objid(path.c_str(), 0, QZFI_OBJID_SUBOBJ);
    qzfi_objid** subobjs = nullptr;
    int count = 0;
    int status = claim(id, &subobjs, &count);
    std::printf("%s %s\n", status == QFI_CLAIMED ? "claimed" : "not claimed", path.c_str());
    qzfi_free_objid(id);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::string command = argc > 1 ? argv[1] : "";
  std::vector<std::string> rest(argv + (argc > 2 ? 2 : argc), argv + argc);
  if (command == "folders" && argc == 2) {
    return folders();
  }
  if (command == "message" && argc >= 4) {
    return message(argv[2], argv[3], {rest.begin() + 2, rest.end()});
  }
  if (command == "load" && argc >= 3) {
    return load(argv[2], {rest.begin() + 1, rest.end()});
  }
  std::fprintf(stderr,
               "usage: tinyfi_host folders | message PROVIDER ID [ARG...] | load FILE [PATH...]\n");
  return 2;
}
