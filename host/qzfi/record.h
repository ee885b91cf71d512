// The snapshot record: what one qzfi command hands the next, on the same or
// another host. A JSON file holding the object, its sub-objects, the owner of
// its device node, the nodes' provider state as their blobs, the step the
// backup has reached and the copy made on the alternate host.
#ifndef QZFI_HOST_RECORD_H
#define QZFI_HOST_RECORD_H

#include <sys/types.h>

#include <ctime>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "nodes.h"

namespace qzfi_host {

// The steps of a backup, in order; each command needs the record at one of
// them and leaves it at the next.
enum class RecordStep { prepared, deported, imported, moved, released };

const char* stepName(RecordStep step);

// A host as the record knows it: its machine id (/etc/machine-id), which
// stays when the host is renamed and changes when it is installed anew, and
// its host name beside it for people. Unknown (both empty) in a record
// written before hosts were recorded.
struct HostIdentity {
  std::string name;
  std::string machineId;
  bool known() const { return !name.empty() || !machineId.empty(); }
};

// Whether a and b are one host: the same machine id and the same name.
bool sameHost(const HostIdentity& a, const HostIdentity& b);
// "A (machine id 0123...)", for messages.
std::string hostText(const HostIdentity& host);
// The host this program runs on: the machine id read from /etc/machine-id
// (empty when it cannot be read) and the host name.
HostIdentity thisHost();

// The copy on the alternate host.
struct AlternateCopy {
  std::string object;                  // the new volume's device path
  std::vector<std::string> secondary;  // the split disks it was built on
  ProviderState state;                 // the alternate node's provider state
  HostIdentity host;                   // where it was imported: the host that holds it
};

// One command that changed the record.
struct RecordEvent {
  std::string command;
  std::string time;  // UTC, ISO 8601
  std::string detail;
  HostIdentity host;  // where the command ran
};

// The record cannot be read or written; what() says why.
class RecordError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class CRecordLock;

class CSnapshotRecord {
 public:
  static constexpr int kFormatVersion = 1;

  std::string plugin;  // the plug-in's name
  std::string object;  // the source object path
  RecordStep step = RecordStep::prepared;
  long long ownerUid = -1;  // owner of the source's device node
  long long ownerGid = -1;
  std::vector<std::string> subObjects;  // the node's sub-objects (its disks), in order
  ProviderState state;                  // the source node's provider state
  std::string deportedObject;           // what deportTree named in the access record
  HostIdentity sourceHost;              // where prepare ran: the source's host
  bool sourceAccess = true;             // false after "access off"
  bool hasAlternate = false;
  AlternateCopy alternate;
  std::vector<AlternateCopy> earlierCopies;  // copies moved on to another host
  std::vector<RecordEvent> events;

  // Reads and checks the file; throws RecordError naming the file (as
  // shownAs, when given) and what is wrong with it.
  static CSnapshotRecord load(const std::string& file, const std::string& shownAs = "");
  // Writes the file atomically: a new file beside it, synced and renamed
  // over it, so that a reader sees the old record or the new one, never a
  // part. exclusive: the file must not exist yet. With a lock, the new
  // file is locked before it takes the record's name and the lock then
  // holds it: the lock moves with the content. Throws RecordError.
  void save(const std::string& file, bool exclusive, CRecordLock* lock = nullptr) const;
  // Throws RecordError unless a record can be written as file: its folder
  // exists and is writable (and, when exclusive, the file does not exist).
  static void checkWritable(const std::string& file, bool exclusive);

  // Appends an event of command at the current time, run on host.
  void note(const std::string& command, const std::string& detail,
            const HostIdentity& host = HostIdentity());

  nlohmann::ordered_json toJson() const;
  // Throws RecordError (without the file's name) when a field is missing or
  // has the wrong type.
  static CSnapshotRecord fromJson(const nlohmann::ordered_json& json);
};

// The advisory lock of a record, held while a command runs, so that two
// commands never use one record at once. It lies on the record file itself
// (flock on its inode, found by following symbolic links), so that every
// path to the file is the same record; a write moves it to the new file
// before the new file takes the record's name.
class CRecordLock {
 public:
  CRecordLock() = default;
  ~CRecordLock();
  CRecordLock(const CRecordLock&) = delete;
  CRecordLock& operator=(const CRecordLock&) = delete;

  // Takes the lock of the record that file names, or throws RecordError
  // naming the record (as given) and the process that holds it. A record
  // with more than one name (hard links) is refused. Once the lock is
  // held, the temporary files of earlier writes of the record that no
  // process holds (a killed write's) are removed.
  void acquire(const std::string& file);
  bool held() const { return m_fd >= 0; }
  // The real file locked: an absolute path without symbolic links.
  const std::string& file() const { return m_file; }
  // The temporary files that acquire removed.
  const std::vector<std::string>& removed() const { return m_removed; }
  // Holds fd, locked already, which now carries the record under the real
  // name file, and lets go of the file held before.
  void moveTo(int fd, const std::string& file);

 private:
  void removeTemporaries();

  int m_fd = -1;
  std::string m_file;
  std::vector<std::string> m_removed;
};

// The real file that a record's path names: symbolic links followed, an
// absolute path. For a record not made yet, its folder's real path and its
// name. Throws RecordError for a symbolic link to nothing.
std::string realRecordFile(const std::string& file);

// Whether name is that of a temporary file of a write of the record named
// base (".BASE.XXXXXX", six letters or digits).
bool isTemporaryOf(const std::string& name, const std::string& base);

// The process that holds a flock on the file of (dev, inode), from
// /proc/locks; 0 when none is found.
long lockHolder(dev_t dev, ino_t inode);

// The provider state in the record: the blob's text when it is UTF-8, its
// base64 form otherwise, with its length either way.
nlohmann::ordered_json providerStateJson(const ProviderState& state);
ProviderState providerStateOf(const nlohmann::ordered_json& json);

// The folder that holds file (a record, the agent's socket): "." for a bare
// name, "/" for a file at the root.
std::string folderOf(const std::string& file);

// The current time, UTC, ISO 8601 ("2026-11-26T03:00:00Z").
std::string utcNow();
// Seconds since the epoch of a UTC time that text gives in format whole,
// with or without a "Z" after it; none when it does not.
std::optional<std::time_t> utcTime(const std::string& text,
                                   const char* format = "%Y-%m-%dT%H:%M:%S");

// A host as JSON: {"name": ..., "machine_id": ...}.
nlohmann::ordered_json hostJson(const HostIdentity& host);
// The host in field name of json; unknown when there is none. Throws
// RecordError when it is not a host.
HostIdentity hostOf(const nlohmann::ordered_json& json, const char* name);

// Replaces file, beside the record named record, with text atomically for
// other processes: the text goes to a temporary file of the record's (which
// the record's lock removes when a killed command left it) and is renamed
// over file. Not synced: a file that must outlive its process, not a power
// cut. Throws RecordError.
void replaceFileUnsynced(const std::string& file, const std::string& record,
                         const std::string& text);

}  // namespace qzfi_host

#endif  // QZFI_HOST_RECORD_H
