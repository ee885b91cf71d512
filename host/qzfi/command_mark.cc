// The mark of a command under way on a record.
#include "command_mark.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

namespace qzfi_host {

namespace {

using Json = nlohmann::ordered_json;

// Characters that a shell takes as they stand.
bool plainWord(const std::string& word) {
  if (word.empty()) {
    return false;
  }
  for (char c : word) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '.' || c == '_' || c == '-' || c == '/' || c == ':' || c == '+' ||
                       c == '@' || c == ',' || c == '=';
    if (!plain) {
      return false;
    }
  }
  return true;
}

std::string shellWord(const std::string& word) {
  if (plainWord(word)) {
    return word;
  }
  std::string quoted = "'";
  for (char c : word) {
    quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  }
  return quoted + "'";
}

Json toJson(const CommandMark& mark) {
  Json json;
  json["command"] = mark.command;
  json["arguments"] = mark.arguments;
  json["pid"] = mark.pid;
  json["uid"] = mark.uid;
  json["user"] = mark.user;
  json["host"] = hostJson(mark.host);
  json["started"] = mark.started;
  json["step_at_start"] = mark.stepAtStart;
  json["events_at_start"] = mark.eventsAtStart;
  return json;
}

CommandMark fromJson(const Json& json) {
  CommandMark mark;
  mark.command = json.at("command").get<std::string>();
  mark.arguments = json.at("arguments").get<std::vector<std::string>>();
  mark.pid = json.at("pid").get<long>();
  mark.uid = json.at("uid").get<long long>();
  mark.user = json.at("user").get<std::string>();
  json.at("host");  // a mark always names its host
  mark.host = hostOf(json, "host");
  mark.started = json.at("started").get<std::string>();
  mark.stepAtStart = json.at("step_at_start").get<std::string>();
  mark.eventsAtStart = json.at("events_at_start").get<size_t>();
  return mark;
}

}  // namespace

bool CommandMark::finishedIn(const CSnapshotRecord& record) const {
  for (size_t i = eventsAtStart; i < record.events.size(); ++i) {
    if (record.events[i].command == command) {
      return true;
    }
  }
  return false;
}

std::string CommandMark::commandLine() const {
  return qzfiLine(arguments);
}

std::string qzfiLine(const std::vector<std::string>& arguments) {
  std::string line = "qzfi";
  for (const std::string& argument : arguments) {
    line += " " + shellWord(argument);
  }
  return line;
}

std::string userName(long long uid) {
  if (uid < 0) {
    return std::string();
  }
  passwd entry{};
  passwd* found = nullptr;
  std::vector<char> buffer(16384);
  if (getpwuid_r(static_cast<uid_t>(uid), &entry, buffer.data(), buffer.size(), &found) != 0 ||
      found == nullptr) {
    return std::string();
  }
  return entry.pw_name;
}

std::string commandMarkFile(const std::string& recordFile) {
  const size_t slash = recordFile.rfind('/');
  const std::string folder = slash == std::string::npos ? "" : recordFile.substr(0, slash + 1);
  const std::string base = slash == std::string::npos ? recordFile : recordFile.substr(slash + 1);
  return folder + "." + base + ".running";
}

void writeCommandMark(const std::string& recordFile, const CommandMark& mark) {
  // A mark tells of a process killed, which the page cache outlives; lost
  // to a power cut, it leaves status without the stopped command's name,
  // and the command run again converges all the same. Syncing it would
  // add two waits for the disk to every command.
  replaceFileUnsynced(commandMarkFile(recordFile), recordFile, toJson(mark).dump(2) + "\n");
}

void removeCommandMark(const std::string& recordFile) {
  if (std::remove(commandMarkFile(recordFile).c_str()) != 0 && errno != ENOENT) {
    throw RecordError(commandMarkFile(recordFile) + " cannot be removed");
  }
}

std::optional<CommandMark> readCommandMark(const std::string& recordFile) {
  std::ifstream in(commandMarkFile(recordFile));
  if (!in) {
    return std::nullopt;
  }
  std::stringstream text;
  text << in.rdbuf();
  try {
    return fromJson(Json::parse(text.str()));
  } catch (const nlohmann::json::exception&) {
    return CommandMark{};
  } catch (const RecordError&) {
    return CommandMark{};
  }
}

}  // namespace qzfi_host
