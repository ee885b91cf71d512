// The snapshot record file.
#include "record.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>

#include <ace/Codecs.h>

#include "host_tools.h"

namespace qzfi_host {

namespace {

using Json = nlohmann::ordered_json;

const char kFormatName[] = "qzfi snapshot record";
// A record is a few hundred kilobytes at most: a group's configuration
// dump and one private-region listing per disk.
const std::streamsize kMaxRecordBytes = 64 << 20;

const RecordStep kSteps[] = {RecordStep::prepared, RecordStep::deported, RecordStep::imported,
                             RecordStep::moved, RecordStep::released};

std::string systemError(int err) {
  return std::strerror(err);
}

bool isUtf8(const std::string& bytes) {
  try {
    Json(bytes).dump();
    return true;
  } catch (const nlohmann::json::type_error&) {
    return false;
  }
}

std::string base64(const std::string& bytes) {
  size_t length = 0;
  std::unique_ptr<ACE_Byte[]> encoded(ACE_Base64::encode(
      reinterpret_cast<const ACE_Byte*>(bytes.data()), bytes.size(), &length, false));
  if (!encoded) {
    throw RecordError("the provider state cannot be encoded");
  }
  return std::string(reinterpret_cast<const char*>(encoded.get()), length);
}

std::string unbase64(const std::string& text) {
  size_t length = 0;
  std::unique_ptr<ACE_Byte[]> decoded(
      ACE_Base64::decode(reinterpret_cast<const ACE_Byte*>(text.c_str()), &length));
  if (!decoded) {
    throw RecordError("the provider state's base64 text is damaged");
  }
  return std::string(reinterpret_cast<const char*>(decoded.get()), length);
}

// Field readers that say which field is wrong.
const Json& field(const Json& json, const char* name) {
  auto found = json.find(name);
  if (found == json.end()) {
    throw RecordError(std::string("the field \"") + name + "\" is missing");
  }
  return *found;
}

std::string text(const Json& json, const char* name) {
  const Json& value = field(json, name);
  if (!value.is_string()) {
    throw RecordError(std::string("the field \"") + name + "\" is not a text");
  }
  return value.get<std::string>();
}

std::string optionalText(const Json& json, const char* name) {
  return json.contains(name) ? text(json, name) : std::string();
}

long long integer(const Json& json, const char* name) {
  const Json& value = field(json, name);
  if (!value.is_number_integer()) {
    throw RecordError(std::string("the field \"") + name + "\" is not a whole number");
  }
  return value.get<long long>();
}

std::vector<std::string> texts(const Json& json, const char* name) {
  const Json& value = field(json, name);
  if (!value.is_array()) {
    throw RecordError(std::string("the field \"") + name + "\" is not a list");
  }
  std::vector<std::string> result;
  for (const Json& item : value) {
    if (!item.is_string()) {
      throw RecordError(std::string("the list \"") + name + "\" holds something else than texts");
    }
    result.push_back(item.get<std::string>());
  }
  return result;
}

const Json& member(const Json& json, const char* name) {
  const Json& value = field(json, name);
  if (!value.is_object()) {
    throw RecordError(std::string("the field \"") + name + "\" is not an object");
  }
  return value;
}

RecordStep stepOf(const std::string& name) {
  for (RecordStep step : kSteps) {
    if (name == stepName(step)) {
      return step;
    }
  }
  throw RecordError("the step \"" + name + "\" is not one of qzfi's");
}

// A list of disks names each disk once.
void checkNamedOnce(const std::vector<std::string>& disks, const char* name) {
  std::set<std::string> seen;
  for (const std::string& disk : disks) {
    if (!seen.insert(disk).second) {
      throw RecordError(std::string("the list \"") + name + "\" names " + disk + " twice");
    }
  }
}

// A copy's split disks pair one to one with the sub-objects, in order.
void checkCopyDisks(const AlternateCopy& copy, const std::vector<std::string>& subObjects,
                    const char* name) {
  if (copy.secondary.size() != subObjects.size()) {
    throw RecordError(std::string("the list \"") + name + "\" holds " +
                      std::to_string(copy.secondary.size()) + " disks for the " +
                      std::to_string(subObjects.size()) + " sub-objects");
  }
  checkNamedOnce(copy.secondary, name);
}

// Where json holds a NUL character in a text or a field name ("sub_objects[1]",
// "alternate.provider_state.text"); empty when nowhere. No name the
// record carries may hold one: the plug-in and the tools read names as C
// strings, which end at the first NUL.
std::string nulAt(const Json& json, const std::string& where) {
  if (json.is_string()) {
    return json.get_ref<const std::string&>().find('\0') != std::string::npos ? where
                                                                              : std::string();
  }
  if (json.is_object()) {
    for (auto item = json.begin(); item != json.end(); ++item) {
      if (item.key().find('\0') != std::string::npos) {
        return where.empty() ? std::string("a field name") : "a field name in " + where;
      }
      const std::string found =
          nulAt(item.value(), where.empty() ? item.key() : where + "." + item.key());
      if (!found.empty()) {
        return found;
      }
    }
  } else if (json.is_array()) {
    for (size_t i = 0; i < json.size(); ++i) {
      const std::string found = nulAt(json[i], where + "[" + std::to_string(i) + "]");
      if (!found.empty()) {
        return found;
      }
    }
  }
  return std::string();
}

// A copy is never the source: not its object, not the object its deport
// named, not a volume of its group. A command given such a record would
// take the source's own group away.
void checkNotTheSource(const CSnapshotRecord& record, const std::string& copy,
                       const std::string& field) {
  const std::string always = ": a copy is always made under a new group name; nothing was run";
  if (copy == record.object) {
    throw RecordError("its copy is the source itself (" + field + " " + copy + ", object " +
                      record.object + ")" + always);
  }
  if (!record.deportedObject.empty() && copy == record.deportedObject) {
    throw RecordError("its copy is the source itself (" + field + " " + copy +
                      ", deported_object " + record.deportedObject + ")" + always);
  }
  const std::string group = groupOfVolumePath(copy);
  if (!group.empty() && group == groupOfVolumePath(record.object)) {
    throw RecordError("it names the source's own group " + group + " as its copy (" + field + " " +
                      copy + ", object " + record.object + ")" + always);
  }
}

Json copyJson(const AlternateCopy& copy) {
  Json json;
  json["object"] = copy.object;
  json["secondary"] = copy.secondary;
  json["provider_state"] = providerStateJson(copy.state);
  if (copy.host.known()) {
    json["host"] = hostJson(copy.host);
  }
  return json;
}

AlternateCopy copyOf(const Json& json) {
  AlternateCopy copy;
  copy.object = text(json, "object");
  copy.secondary = texts(json, "secondary");
  copy.state = providerStateOf(member(json, "provider_state"));
  copy.host = hostOf(json, "host");
  return copy;
}

// Writes all of text to fd.
bool writeAll(int fd, const std::string& text) {
  size_t written = 0;
  while (written < text.size()) {
    ssize_t put = write(fd, text.data() + written, text.size() - written);
    if (put < 0 && errno == EINTR) {
      continue;
    }
    if (put <= 0) {
      return false;
    }
    written += static_cast<size_t>(put);
  }
  return true;
}

std::string existsAlready(const std::string& file) {
  return "the record " + file +
         " exists already: a new backup needs a new record (remove the old one when its backup "
         "is done)";
}

void syncFolder(const std::string& folder) {
  int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) {
    fsync(fd);
    close(fd);
  }
}

}  // namespace

Json hostJson(const HostIdentity& host) {
  return {{"name", host.name}, {"machine_id", host.machineId}};
}

HostIdentity hostOf(const Json& json, const char* name) {
  HostIdentity host;
  if (json.contains(name)) {
    const Json& value = member(json, name);
    host.name = text(value, "name");
    host.machineId = text(value, "machine_id");
  }
  return host;
}

std::optional<std::time_t> utcTime(const std::string& text, const char* format) {
  std::tm parts{};
  const char* end = strptime(text.c_str(), format, &parts);
  if (end == nullptr || (*end != '\0' && std::string(end) != "Z")) {
    return std::nullopt;
  }
  return timegm(&parts);
}

std::string utcNow() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  char buffer[32];
  std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return buffer;
}

void replaceFileUnsynced(const std::string& file, const std::string& record,
                         const std::string& text) {
  const std::string folder = folderOf(file);
  const std::string base = record.substr(record.rfind('/') + 1);
  std::string temporary = folder + "/." + base + ".XXXXXX";
  const int fd = mkstemp(&temporary[0]);
  if (fd < 0) {
    throw RecordError(file + " cannot be written: " + systemError(errno));
  }
  const bool written = writeAll(fd, text);
  const int writeError = errno;
  close(fd);
  if (!written || rename(temporary.c_str(), file.c_str()) != 0) {
    const int error = written ? errno : writeError;
    unlink(temporary.c_str());
    throw RecordError(file + " cannot be written: " + systemError(error));
  }
}

const char* stepName(RecordStep step) {
  switch (step) {
    case RecordStep::prepared:
      return "prepared";
    case RecordStep::deported:
      return "deported";
    case RecordStep::imported:
      return "imported";
    case RecordStep::moved:
      return "moved";
    case RecordStep::released:
      return "released";
  }
  return "?";
}

Json providerStateJson(const ProviderState& state) {
  Json json;
  json["bytes"] = state.bytes.size();
  // A state holding a NUL travels as base64: no text of a record holds one.
  if (state.bytes.find('\0') == std::string::npos && isUtf8(state.bytes)) {
    json["text"] = state.bytes;
  } else {
    json["base64"] = base64(state.bytes);
  }
  return json;
}

ProviderState providerStateOf(const Json& json) {
  ProviderState state;
  if (json.contains("text")) {
    state.bytes = text(json, "text");
  } else if (json.contains("base64")) {
    state.bytes = unbase64(text(json, "base64"));
  } else {
    throw RecordError("the provider state has neither \"text\" nor \"base64\"");
  }
  if (integer(json, "bytes") != static_cast<long long>(state.bytes.size())) {
    throw RecordError("the provider state is not as long as its \"bytes\" says");
  }
  return state;
}

Json CSnapshotRecord::toJson() const {
  Json json;
  json["format"] = kFormatName;
  json["version"] = kFormatVersion;
  json["plugin"] = plugin;
  json["object"] = object;
  json["step"] = stepName(step);
  json["owner"] = {{"uid", ownerUid}, {"gid", ownerGid}};
  json["sub_objects"] = subObjects;
  json["provider_state"] = providerStateJson(state);
  if (!deportedObject.empty()) {
    json["deported_object"] = deportedObject;
  }
  json["source_access"] = sourceAccess ? "on" : "off";
  if (sourceHost.known()) {
    json["source_host"] = hostJson(sourceHost);
  }
  if (hasAlternate) {
    json["alternate"] = copyJson(alternate);
  }
  if (!earlierCopies.empty()) {
    Json copies = Json::array();
    for (const AlternateCopy& copy : earlierCopies) {
      copies.push_back(copyJson(copy));
    }
    json["earlier_copies"] = copies;
  }
  Json history = Json::array();
  for (const RecordEvent& event : events) {
    Json item = {{"command", event.command}, {"time", event.time}, {"detail", event.detail}};
    if (event.host.known()) {
      item["host"] = hostJson(event.host);
    }
    history.push_back(item);
  }
  json["events"] = history;
  return json;
}

CSnapshotRecord CSnapshotRecord::fromJson(const Json& json) {
  if (!json.is_object() || optionalText(json, "format") != kFormatName) {
    throw RecordError("it is not a qzfi snapshot record");
  }
  const std::string nul = nulAt(json, std::string());
  if (!nul.empty()) {
    throw RecordError(
        (nul.compare(0, 12, "a field name") == 0 ? nul : "the field \"" + nul + "\"") +
        " holds a NUL character (\\u0000), which no text of a record may hold; "
        "nothing was run");
  }
  const long long version = integer(json, "version");
  if (version != kFormatVersion) {
    throw RecordError("it is a record of version " + std::to_string(version) +
                      "; this qzfi reads " + "version " + std::to_string(kFormatVersion));
  }
  CSnapshotRecord record;
  record.plugin = text(json, "plugin");
  record.object = text(json, "object");
  record.step = stepOf(text(json, "step"));
  const Json& owner = member(json, "owner");
  record.ownerUid = integer(owner, "uid");
  record.ownerGid = integer(owner, "gid");
  record.subObjects = texts(json, "sub_objects");
  checkNamedOnce(record.subObjects, "sub_objects");
  record.state = providerStateOf(member(json, "provider_state"));
  record.deportedObject = optionalText(json, "deported_object");
  const std::string access = text(json, "source_access");
  if (access != "on" && access != "off") {
    throw RecordError("the field \"source_access\" is neither \"on\" nor \"off\"");
  }
  record.sourceAccess = access == "on";
  record.sourceHost = hostOf(json, "source_host");
  if (json.contains("alternate")) {
    record.hasAlternate = true;
    record.alternate = copyOf(member(json, "alternate"));
    checkCopyDisks(record.alternate, record.subObjects, "alternate.secondary");
  }
  if (json.contains("earlier_copies")) {
    const Json& copies = field(json, "earlier_copies");
    if (!copies.is_array()) {
      throw RecordError("the field \"earlier_copies\" is not a list");
    }
    for (const Json& copy : copies) {
      record.earlierCopies.push_back(copyOf(copy));
      checkCopyDisks(record.earlierCopies.back(), record.subObjects, "earlier_copies.secondary");
    }
  }
  const Json& history = field(json, "events");
  if (!history.is_array()) {
    throw RecordError("the field \"events\" is not a list");
  }
  for (const Json& event : history) {
    record.events.push_back({text(event, "command"), text(event, "time"),
                             optionalText(event, "detail"), hostOf(event, "host")});
  }
  if (record.hasAlternate) {
    checkNotTheSource(record, record.alternate.object, "alternate.object");
  }
  for (size_t i = 0; i < record.earlierCopies.size(); ++i) {
    checkNotTheSource(record, record.earlierCopies[i].object,
                      "earlier_copies[" + std::to_string(i) + "].object");
  }
  return record;
}

CSnapshotRecord CSnapshotRecord::load(const std::string& file, const std::string& shownAs) {
  const std::string& name = shownAs.empty() ? file : shownAs;
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    throw RecordError("the record " + name + " cannot be read: " + systemError(errno));
  }
  std::ostringstream content;
  content << in.rdbuf();
  const std::string bytes = content.str();
  if (static_cast<std::streamsize>(bytes.size()) > kMaxRecordBytes) {
    throw RecordError("the record " + name + " is too large to be a snapshot record");
  }
  try {
    return fromJson(Json::parse(bytes));
  } catch (const nlohmann::json::exception& error) {
    throw RecordError("the record " + name + " is not valid JSON: " + error.what());
  } catch (const RecordError& error) {
    throw RecordError("the record " + name + " cannot be used: " + error.what());
  }
}

void CSnapshotRecord::checkWritable(const std::string& file, bool exclusive) {
  const std::string folder = folderOf(file);
  if (access(folder.c_str(), W_OK | X_OK) != 0) {
    throw RecordError("the record " + file + " cannot be written in " + folder + ": " +
                      systemError(errno));
  }
  if (exclusive && access(file.c_str(), F_OK) == 0) {
    throw RecordError(existsAlready(file));
  }
}

void CSnapshotRecord::save(const std::string& file, bool exclusive, CRecordLock* lock) const {
  const std::string folder = folderOf(file);
  const std::string base = file.substr(file.rfind('/') + 1);
  std::string temporary = folder + "/." + base + ".XXXXXX";
  const int fd = mkstemp(&temporary[0]);
  if (fd < 0) {
    throw RecordError("the record " + file + " cannot be written: " + systemError(errno));
  }
  // Locked before it takes the record's name: a command that opens the
  // new record finds it in use, as it found the old one.
  if (lock != nullptr && flock(fd, LOCK_EX | LOCK_NB) != 0) {
    const int lockError = errno;
    close(fd);
    unlink(temporary.c_str());
    throw RecordError("the record " + file + " cannot be written: its new file cannot be locked: " +
                      systemError(lockError));
  }
  const std::string text =
      toJson().dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  const bool written = writeAll(fd, text) && fsync(fd) == 0;
  const int writeError = errno;
  // A new record must not replace one written meanwhile: link fails when
  // the name exists; an update replaces the record in one rename.
  const bool placed = written && (exclusive ? link(temporary.c_str(), file.c_str()) == 0
                                            : rename(temporary.c_str(), file.c_str()) == 0);
  const int placeError = errno;
  if (!placed || exclusive) {
    unlink(temporary.c_str());
  }
  if (!placed) {
    close(fd);
    if (written && exclusive && placeError == EEXIST) {
      throw RecordError(existsAlready(file));  // made meanwhile, by another command
    }
    throw RecordError("the record " + file +
                      " cannot be written: " + systemError(written ? placeError : writeError));
  }
  if (lock != nullptr) {
    lock->moveTo(fd, file);
  } else {
    close(fd);
  }
  syncFolder(folder);
}

namespace {

// How often a command tries again to lock a record that another command
// replaced between its opening and its locking.
constexpr int kLockAttempts = 20;

std::string joinPath(const std::string& folder, const std::string& name) {
  return folder == "/" ? "/" + name : folder + "/" + name;
}

bool sameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

std::string realPathOf(const std::string& path) {
  std::unique_ptr<char, decltype(&free)> real(realpath(path.c_str(), nullptr), &free);
  return real ? std::string(real.get()) : std::string();
}

}  // namespace

std::string realRecordFile(const std::string& file) {
  const std::string real = realPathOf(file);
  if (!real.empty()) {
    return real;
  }
  const int error = errno;
  struct stat link {};
  if (lstat(file.c_str(), &link) == 0 && S_ISLNK(link.st_mode)) {
    throw RecordError("the record " + file + " is a symbolic link to nothing usable (" +
                      systemError(error) + "); nothing was run");
  }
  // A record not made yet: its folder's real path and its name.
  const std::string folder = realPathOf(folderOf(file));
  if (folder.empty()) {
    return file;  // its use names what is wrong with it
  }
  return joinPath(folder, file.substr(file.rfind('/') + 1));
}

bool isTemporaryOf(const std::string& name, const std::string& base) {
  const std::string prefix = "." + base + ".";
  if (base.empty() || name.size() != prefix.size() + 6 || name.compare(0, prefix.size(), prefix)) {
    return false;
  }
  for (size_t i = prefix.size(); i < name.size(); ++i) {
    const char c = name[i];
    if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'))) {
      return false;
    }
  }
  return true;
}

// Lines of /proc/locks: "1: FLOCK  ADVISORY  WRITE 1234 08:01:5678 0 EOF",
// the device's major and minor numbers in hexadecimal; a process waiting
// for a lock has "->" after the number, and holds nothing.
long lockHolder(dev_t dev, ino_t inode) {
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    std::istringstream fields(line);
    std::string number, kind, mode, access, pid, file;
    fields >> number >> kind;
    if (kind != "FLOCK") {
      continue;
    }
    fields >> mode >> access >> pid >> file;
    unsigned long fileMajor = 0;
    unsigned long fileMinor = 0;
    unsigned long long node = 0;
    if (std::sscanf(file.c_str(), "%lx:%lx:%llu", &fileMajor, &fileMinor, &node) != 3) {
      continue;
    }
    if (fileMajor == major(dev) && fileMinor == minor(dev) && node == inode) {
      const long holder = std::strtol(pid.c_str(), nullptr, 10);
      if (holder > 0) {
        return holder;
      }
    }
  }
  return 0;
}

CRecordLock::~CRecordLock() {
  if (m_fd >= 0) {
    close(m_fd);
  }
}

void CRecordLock::moveTo(int fd, const std::string& file) {
  if (m_fd >= 0 && m_fd != fd) {
    close(m_fd);
  }
  m_fd = fd;
  m_file = file;
}

void CRecordLock::acquire(const std::string& file) {
  for (int attempt = 0; attempt < kLockAttempts; ++attempt) {
    const std::string real = realRecordFile(file);
    const int fd = open(real.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0 && errno == ELOOP) {
      continue;  // replaced by a link since its path was resolved
    }
    if (fd < 0) {
      throw RecordError("the record " + file + " cannot be read: " + systemError(errno));
    }
    struct stat held {};
    if (fstat(fd, &held) != 0 || !S_ISREG(held.st_mode)) {
      close(fd);
      throw RecordError("the record " + file + " is not a regular file; nothing was run");
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
      const int lockError = errno;
      close(fd);
      if (lockError != EWOULDBLOCK) {
        throw RecordError("the record " + file + " cannot be locked: " + systemError(lockError));
      }
      const long holder = lockHolder(held.st_dev, held.st_ino);
      throw RecordError("the record " + file + " is in use by another qzfi command" +
                        (holder > 0 ? " (process " + std::to_string(holder) + ")"
                                    : std::string(" (its process is not named in /proc/locks)")) +
                        ": run this command again when it is done; nothing was changed");
    }
    // Another command may have replaced the record between the opening
    // and the locking: the lock then lies on a file that is no record.
    struct stat named {};
    if (lstat(real.c_str(), &named) != 0 || !sameFile(named, held)) {
      close(fd);
      continue;
    }
    moveTo(fd, real);
    removeTemporaries();
    if (fstat(m_fd, &held) == 0 && held.st_nlink > 1) {
      close(m_fd);
      m_fd = -1;
      throw RecordError(
          "the record " + file + " has " + std::to_string(held.st_nlink) +
          " names (hard links): each command replaces the record by renaming a new file over "
          "the name it was given, which would split the names into two records; keep one name "
          "(remove the other links; a symbolic link may point to the record); nothing was run");
    }
    return;
  }
  throw RecordError("the record " + file +
                    " was replaced again and again while this command tried to lock it: run this "
                    "command again; nothing was changed");
}

// A temporary that no process holds is a killed write's; one that is a
// second name of the record itself is a killed creation's, whose record
// took its name already.
void CRecordLock::removeTemporaries() {
  const std::string folder = folderOf(m_file);
  const std::string base = m_file.substr(m_file.rfind('/') + 1);
  struct stat record {};
  if (fstat(m_fd, &record) != 0) {
    return;
  }
  std::vector<std::string> names;
  if (DIR* dir = opendir(folder.c_str())) {
    while (const dirent* entry = readdir(dir)) {
      if (isTemporaryOf(entry->d_name, base)) {
        names.emplace_back(entry->d_name);
      }
    }
    closedir(dir);
  }
  for (const std::string& name : names) {
    const std::string path = joinPath(folder, name);
    const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
      continue;
    }
    struct stat info {};
    struct stat named {};
    if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode) &&
        (sameFile(info, record) || flock(fd, LOCK_EX | LOCK_NB) == 0) &&
        lstat(path.c_str(), &named) == 0 && sameFile(named, info) && unlink(path.c_str()) == 0) {
      m_removed.push_back(path);
    }
    close(fd);
  }
}

void CSnapshotRecord::note(const std::string& command, const std::string& detail,
                           const HostIdentity& host) {
  events.push_back({command, utcNow(), detail, host});
}

bool sameHost(const HostIdentity& a, const HostIdentity& b) {
  return a.machineId == b.machineId && a.name == b.name;
}

std::string hostText(const HostIdentity& host) {
  return (host.name.empty() ? std::string("(no host name)") : host.name) + " (machine id " +
         (host.machineId.empty() ? std::string("unknown") : host.machineId) + ")";
}

HostIdentity thisHost() {
  HostIdentity host;
  std::ifstream file("/etc/machine-id");
  std::string id;
  if (file && std::getline(file, id)) {
    while (!id.empty() && (id.back() == '\r' || id.back() == ' ' || id.back() == '\t')) {
      id.pop_back();
    }
    host.machineId = id;
  }
  char name[HOST_NAME_MAX + 1] = {};
  if (gethostname(name, sizeof name - 1) == 0) {
    host.name = name;
  }
  return host;
}

std::string folderOf(const std::string& file) {
  const size_t slash = file.rfind('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? "/" : file.substr(0, slash);
}

}  // namespace qzfi_host
