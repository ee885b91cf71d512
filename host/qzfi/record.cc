// The snapshot record file.
#include "record.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>

#include <ace/Codecs.h>

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

Json copyJson(const AlternateCopy& copy) {
  Json json;
  json["object"] = copy.object;
  json["secondary"] = copy.secondary;
  json["provider_state"] = providerStateJson(copy.state);
  return json;
}

AlternateCopy copyOf(const Json& json) {
  AlternateCopy copy;
  copy.object = text(json, "object");
  copy.secondary = texts(json, "secondary");
  copy.state = providerStateOf(member(json, "provider_state"));
  return copy;
}

std::string utcNow() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  char buffer[32];
  std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return buffer;
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

void syncFolder(const std::string& folder) {
  int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) {
    fsync(fd);
    close(fd);
  }
}

}  // namespace

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
  if (isUtf8(state.bytes)) {
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
    history.push_back({{"command", event.command}, {"time", event.time}, {"detail", event.detail}});
  }
  json["events"] = history;
  return json;
}

CSnapshotRecord CSnapshotRecord::fromJson(const Json& json) {
  if (!json.is_object() || optionalText(json, "format") != kFormatName) {
    throw RecordError("it is not a qzfi snapshot record");
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
    record.events.push_back(
        {text(event, "command"), text(event, "time"), optionalText(event, "detail")});
  }
  return record;
}

CSnapshotRecord CSnapshotRecord::load(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    throw RecordError("the record " + file + " cannot be read: " + systemError(errno));
  }
  std::ostringstream content;
  content << in.rdbuf();
  const std::string bytes = content.str();
  if (static_cast<std::streamsize>(bytes.size()) > kMaxRecordBytes) {
    throw RecordError("the record " + file + " is too large to be a snapshot record");
  }
  try {
    return fromJson(Json::parse(bytes));
  } catch (const nlohmann::json::exception& error) {
    throw RecordError("the record " + file + " is not valid JSON: " + error.what());
  } catch (const RecordError& error) {
    throw RecordError("the record " + file + " cannot be used: " + error.what());
  }
}

void CSnapshotRecord::checkWritable(const std::string& file, bool exclusive) {
  const std::string folder = folderOf(file);
  if (access(folder.c_str(), W_OK | X_OK) != 0) {
    throw RecordError("the record " + file + " cannot be written in " + folder + ": " +
                      systemError(errno));
  }
  if (exclusive && access(file.c_str(), F_OK) == 0) {
    throw RecordError("the record " + file +
                      " exists already: a new backup needs a new record (remove the old one "
                      "when its backup is done)");
  }
}

void CSnapshotRecord::save(const std::string& file, bool exclusive) const {
  const std::string folder = folderOf(file);
  const std::string base = file.substr(file.rfind('/') + 1);
  std::string temporary = folder + "/." + base + ".XXXXXX";
  const int fd = mkstemp(&temporary[0]);
  if (fd < 0) {
    throw RecordError("the record " + file + " cannot be written: " + systemError(errno));
  }
  const std::string text =
      toJson().dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  const bool written = writeAll(fd, text) && fsync(fd) == 0;
  const int writeError = errno;
  close(fd);
  // A new record must not replace one written meanwhile: link fails when
  // the name exists; an update replaces the record in one rename.
  const bool placed = written && (exclusive ? link(temporary.c_str(), file.c_str()) == 0
                                            : rename(temporary.c_str(), file.c_str()) == 0);
  const int placeError = errno;
  if (!placed || exclusive) {
    unlink(temporary.c_str());
  }
  if (!placed) {
    throw RecordError("the record " + file +
                      " cannot be written: " + systemError(written ? placeError : writeError));
  }
  syncFolder(folder);
}

CRecordLock::~CRecordLock() {
  if (m_fd >= 0) {
    close(m_fd);
  }
}

void CRecordLock::acquire(const std::string& file) {
  const std::string folder = folderOf(file);
  const std::string lockFile = folder + "/." + file.substr(file.rfind('/') + 1) + ".lock";
  const int fd = open(lockFile.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) {
    throw RecordError("the record " + file + " cannot be locked (" + lockFile +
                      "): " + systemError(errno));
  }
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    const int lockError = errno;
    char holder[32] = {0};
    const ssize_t got = pread(fd, holder, sizeof holder - 1, 0);
    close(fd);
    if (lockError != EWOULDBLOCK) {
      throw RecordError("the record " + file + " cannot be locked: " + systemError(lockError));
    }
    const std::string pid = got > 0 ? std::string(holder, static_cast<size_t>(got)) : "";
    throw RecordError("the record " + file + " is in use by another qzfi command" +
                      (pid.empty() ? std::string() : " (process " + pid + ")") +
                      ": run this command again when it is done; nothing was changed");
  }
  const std::string pid = std::to_string(getpid());
  // The process id only names the holder to a command refused meanwhile.
  [[maybe_unused]] const bool named =
      ftruncate(fd, 0) == 0 && pwrite(fd, pid.data(), pid.size(), 0) > 0;
  m_fd = fd;
}

void CSnapshotRecord::note(const std::string& command, const std::string& detail) {
  events.push_back({command, utcNow(), detail});
}

std::string folderOf(const std::string& file) {
  const size_t slash = file.rfind('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? "/" : file.substr(0, slash);
}

}  // namespace qzfi_host
