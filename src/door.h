// The door: what the plug-in takes from outside (the object paths of its
// operations, their disk lists, the provider state given back to it) is
// checked where it enters, before anything is run, with the one rule of
// names that the command layer applies to every command line.
#ifndef QZVMFI_DOOR_H
#define QZVMFI_DOOR_H

#include <string>
#include <vector>

#include <qzfi/pdk.h>

#include "clitool.h"
#include "node.h"

class CQzVMSupport;

namespace qzvmfi_door {

// Why something given from outside is refused, and where it stood. No
// refusal while why is empty.
struct SRefusal {
  std::string where;  // "the secondary disk list", "the provider state (record ..., field ...)"
  std::string value;  // the refused name, or the list or count
  std::string why;
  bool name = true;  // a name the volume manager does not accept; else a list that does not fit
  explicit operator bool() const { return !why.empty(); }
};

// The most disks a group may hold. The import clears the import locks of
// every copy in one command, "DIR/qzdisk  clearimport" followed by a blank
// and a name of at most 31 characters per disk, run as the one argument of
// "sh -c"; Linux takes at most 131,072 bytes (MAX_ARG_STRLEN, 32 pages)
// for one argument, its closing NUL included, and the tools' folder is a
// path of at most 4,095 characters. So (131,071 - 4,116) / 32 = 3,967
// disks always fit, whatever their names and the folder.
inline constexpr size_t kMaxArgumentBytes = 131072;
inline constexpr size_t kMaxToolsFolderLength = 4095;
inline constexpr size_t kMaxGroupDisks =
    (kMaxArgumentBytes - 1 -
     (kMaxToolsFolderLength + sizeof("qzdisk  ") - 1 + sizeof(" clearimport ") - 1)) /
    (1 + kQzVMMaxNameLength);

// A path given as an operation's object; a null path is the operation's own
// concern and passes.
SRefusal checkObjectPath(const char* where, const char* path);
// Disks as the framework names them (device paths, or names without the
// device folder): each a name, none named twice, at most kMaxGroupDisks.
SRefusal checkDiskList(const char* where, const std::vector<std::string>& disks);
// Two lists whose disks pair one to one, at the same place.
SRefusal checkSameLength(const char* where, const std::vector<std::string>& primary,
                         const std::vector<std::string>& secondary);
// Everything the provider state read into data names: the group, its id,
// volumes, volume sets, disks, their disk-media names and multipath nodes,
// the recorded private regions and the configuration dump; and the shape
// of the text it was read from. A text that broke off (truncated: a count
// that runs past its end) is refused by its shape; its configuration lines
// are not checked as a dump.
SRefusal checkProviderState(const CQzVMData& data, CQzVMSupport& support, bool brokeOff);
// A provider state restored into the node of objectPath is that object's:
// the group its configuration dump records (the fiid_dgconfig record's
// group and the dump's dg record) is the path's group, and the path's
// volume is one the dump or the state's lists name when the dump has
// volume records. A state that records no group (an alternate node's), and
// a path that is no QzVM volume path, pass.
SRefusal checkStateObject(const CQzVMData& data, const std::string& objectPath);

// Traces and reports the refusal of operation: MSG_ERROR_INVALID_NAME for a
// name, MSG_ERROR_INPUT_REFUSED otherwise. Returns 3.
int refuse(const qzfi_pdk_4_4::CFiTraceLogPtr& log, const char* operation, const SRefusal& refusal);

}  // namespace qzvmfi_door

#endif  // QZVMFI_DOOR_H
