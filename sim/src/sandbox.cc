// Private mount namespaces in which a process sees one simulated host.
#include "../include/qzsim/sandbox.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>

#include "fsutil.h"
#include "sim.h"
#include "text.h"

#ifndef QZSIM_BINARY
#define QZSIM_BINARY "qzsim"
#endif

namespace qzsim {

namespace {

struct NsState {
  bool entered = false;
  std::vector<std::string> hostMounts;  // unmounted by leaveHost, last first
  pid_t sysBlockServer = -1;            // serves the host's /sys/block
};

NsState& ns() {
  static NsState s;
  return s;
}

bool sysFail(std::string* error, const std::string& what) {
  *error = what + ": " + strerror(errno);
  return false;
}

std::string unescapeMount(const std::string& s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\\' && i + 3 < s.size()) {
      out += static_cast<char>(std::stoi(s.substr(i + 1, 3), nullptr, 8));
      i += 3;
    } else {
      out += s[i];
    }
  }
  return out;
}

// Mount points strictly below dir, outermost only.
std::vector<std::string> submounts(const std::string& dir) {
  std::string info;
  readFile("/proc/self/mountinfo", &info);
  std::set<std::string> points;
  for (const auto& line : splitChar(info, '\n')) {
    auto f = splitBlanks(line);
    if (f.size() > 4 && startsWith(unescapeMount(f[4]), dir + "/"))
      points.insert(unescapeMount(f[4]));
  }
  std::vector<std::string> top;
  for (const auto& p : points) {
    bool nested = false;
    for (const auto& q : top) nested = nested || startsWith(p, q + "/");
    if (!nested)
      top.push_back(p);
  }
  return top;
}

// A scratch tmpfs for overlay layers and stashed mounts; detached once the
// overlays hold on to what they need, so nothing stays behind in /tmp.
struct Scratch {
  std::string dir;
  bool open(std::string* error) {
    char tmpl[] = "/tmp/qzsim-ns-XXXXXX";
    if (!mkdtemp(tmpl))
      return sysFail(error, "mkdtemp");
    dir = tmpl;
    if (mount("tmpfs", dir.c_str(), "tmpfs", 0, "mode=0755") != 0) {
      rmdir(dir.c_str());
      return sysFail(error, "mount tmpfs on " + dir);
    }
    return true;
  }
  ~Scratch() {
    if (dir.empty())
      return;
    umount2(dir.c_str(), MNT_DETACH);
    rmdir(dir.c_str());
  }
};

bool isDir(const std::string& p) {
  struct stat st;
  return stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Overlays dir with layer on top, keeping the mounts below dir in place.
// With a writable folder (and its overlay work folder, on the same file
// system) changes land there; without, the overlay is read-only.
bool overlay(const std::string& dir, const std::string& layer, const std::string& stash,
             std::string* error, const std::string& writable = "") {
  auto subs = submounts(dir);
  std::vector<std::string> stashed;
  for (size_t i = 0; i < subs.size(); ++i) {
    std::string s = stash + "/" + std::to_string(i);
    if (isDir(subs[i]))
      makeDirs(s);
    else
      writeFile(s, "");
    if (mount(subs[i].c_str(), s.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
      return sysFail(error, "bind " + subs[i]);
    stashed.push_back(s);
  }
  std::string opts = "lowerdir=" + layer + ":" + dir;
  if (!writable.empty()) {
    makeDirs(writable + "/upper");
    makeDirs(writable + "/work");
    opts += ",upperdir=" + writable + "/upper,workdir=" + writable + "/work";
  }
  if (mount("overlay", dir.c_str(), "overlay", 0, opts.c_str()) != 0)
    return sysFail(error, "overlay on " + dir + " (is overlayfs available?)");
  for (size_t i = 0; i < subs.size(); ++i)
    if (mount(stashed[i].c_str(), subs[i].c_str(), nullptr, MS_MOVE, nullptr) != 0)
      return sysFail(error, "move mount back to " + subs[i]);
  return true;
}

bool writeProc(const std::string& path, const std::string& text) {
  return writeFile(path, text);
}

bool enterUserNamespace(std::string* error) {
  uid_t uid = getuid();
  gid_t gid = getgid();
  if (unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWUTS) != 0)
    return sysFail(error,
                   "unshare(user+mount+UTS namespace): run as root or allow unprivileged user "
                   "namespaces");
  writeProc("/proc/self/setgroups", "deny");
  if (!writeProc("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
      !writeProc("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1"))
    return sysFail(error, "writing the user namespace id maps");
  return true;
}

// The machine path a tool appears at, split into the deepest folder that
// exists (resolved) and the part below it that the overlay adds.
struct Target {
  std::string dir, rest;
};

Target splitTarget(const std::string& path) {
  std::string dir = path, rest;
  while (!isDir(dir)) {
    size_t slash = dir.rfind('/');
    rest = dir.substr(slash + 1) + (rest.empty() ? "" : "/" + rest);
    dir = slash == 0 ? "/" : dir.substr(0, slash);
  }
  char buf[PATH_MAX];
  if (realpath(dir.c_str(), buf))
    dir = buf;
  return {dir, rest};
}

std::vector<std::string> toolPaths(const Host& h) {
  std::vector<std::string> paths = {"/bin/rpm", "/sbin/parted"};
  if (!h.installed)
    return paths;
  for (const char* t : {"qzdg", "qzdisk", "qzprint", "qzvol", "qzinfo", "qzassist", "qzmake"})
    paths.push_back(std::string("/usr/sbin/") + t);
  if (h.dmp)
    paths.push_back("/usr/sbin/qzdmpadm");
  if (h.vset)
    paths.push_back("/usr/sbin/qzvset");
  paths.push_back("/usr/lib/qzvm/bin/qzdisksetup");
  paths.push_back("/usr/lib/qzvm/bin/qzdiskunsetup");
  if (h.cds)
    paths.push_back("/usr/lib/qzvm/bin/qzcdsconvert");
  return paths;
}

bool mountTools(const Host& h, const std::string& binary, std::string* error) {
  std::map<std::string, std::vector<std::string>> layers;  // machine folder -> entries
  for (const auto& p : toolPaths(h)) {
    Target t = splitTarget(p);
    layers[t.dir].push_back(t.rest);
  }
  // Keep /usr/lib/qzvm/bin present even on a host without the package.
  Target qzbin = splitTarget("/usr/lib/qzvm/bin");
  if (!qzbin.rest.empty())
    layers[qzbin.dir];
  Scratch scratch;
  if (!scratch.open(error))
    return false;
  int n = 0;
  for (const auto& l : layers) {
    std::string layer = scratch.dir + "/layer" + std::to_string(n++);
    makeDirs(layer);
    for (const auto& rest : l.second) {
      std::string entry = layer + "/" + rest;
      makeDirs(entry.substr(0, entry.rfind('/')));
      if (symlink(binary.c_str(), entry.c_str()) != 0)
        return sysFail(error, "symlink " + entry);
    }
    if (l.second.empty() && !qzbin.rest.empty())
      makeDirs(layer + "/" + qzbin.rest);
    if (!submounts(l.first).empty()) {
      *error = "cannot overlay " + l.first + ": it has mounts below it";
      return false;
    }
    if (!overlay(l.first, layer, scratch.dir, error))
      return false;
    ns().hostMounts.push_back(l.first);
  }
  return true;
}

bool bindHostFolder(const std::string& from, const std::string& to, std::string* error) {
  makeDirs(from);
  if (mount(from.c_str(), to.c_str(), nullptr, MS_BIND, nullptr) != 0)
    return sysFail(error, "bind " + to);
  ns().hostMounts.push_back(to);
  return true;
}

// The host's own machine id at /etc/machine-id: a bind mount of its file
// over the machine's, or, where the machine has none, a read-only overlay
// of /etc that adds it.
bool mountMachineId(const std::string& root, const std::string& host, std::string* error) {
  if (!ensureMachineId(root, host))
    return sysFail(error, "writing the machine id of host " + host);
  const std::string file = machineIdFile(root, host);
  if (access("/etc/machine-id", F_OK) == 0) {
    if (mount(file.c_str(), "/etc/machine-id", nullptr, MS_BIND, nullptr) != 0)
      return sysFail(error, "bind /etc/machine-id");
    ns().hostMounts.push_back("/etc/machine-id");
    return true;
  }
  Scratch scratch;
  if (!scratch.open(error))
    return false;
  makeDirs(scratch.dir + "/etclayer");
  std::string id;
  if (!readFile(file, &id) || !writeFile(scratch.dir + "/etclayer/machine-id", id, 0444))
    return sysFail(error, "copy " + file);
  if (!overlay("/etc", scratch.dir + "/etclayer", scratch.dir, error))
    return false;
  ns().hostMounts.push_back("/etc");
  return true;
}

bool syncFiles(const std::string& root, const std::string& host, std::string* error) {
  try {
    Db db(dbPath(root));
    db.begin();
    Sim s(db, root, host);
    s.sync(true);
    db.commit();
    return true;
  } catch (const ToolError& e) {
    *error = e.text;
  } catch (const DbError& e) {
    *error = e.what();
  }
  return false;
}

std::string folderOf(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

// Starts qzsim-sysblock (beside binary) serving host's /sys/block in this
// namespace, and waits until it has mounted.
bool startSysBlock(const std::string& root, const std::string& host, const std::string& binary,
                   std::string* error) {
  std::string server = folderOf(binary) + "/qzsim-sysblock";
  int ready[2];
  if (pipe2(ready, O_CLOEXEC) != 0)
    return sysFail(error, "pipe");
  pid_t parent = getpid();
  pid_t pid = fork();
  if (pid < 0)
    return sysFail(error, "fork");
  if (pid == 0) {
    // The server dies with whoever started it; it holds no other file.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)
      _exit(1);
    int null = open("/dev/null", O_RDWR);
    for (int fd = 0; fd < 3; ++fd) dup2(null, fd);
    fcntl(ready[1], F_SETFD, 0);
    for (int fd = 3; fd < 1024; ++fd)
      if (fd != ready[1])
        close(fd);
    std::string fd = std::to_string(ready[1]);
    execl(server.c_str(), "qzsim-sysblock", root.c_str(), host.c_str(), "/sys/block", fd.c_str(),
          static_cast<char*>(nullptr));
    _exit(127);
  }
  close(ready[1]);
  std::string answer;
  char buf[256];
  ssize_t n;
  while ((n = read(ready[0], buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR))
    if (n > 0)
      answer.append(buf, static_cast<size_t>(n));
  close(ready[0]);
  if (answer != "ok\n") {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    *error = "simulated /sys/block: " + (answer.empty() ? "cannot run " + server : trim(answer));
    return false;
  }
  ns().sysBlockServer = pid;
  return true;
}

void stopSysBlock() {
  pid_t& pid = ns().sysBlockServer;
  if (pid <= 0)
    return;
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  pid = -1;
}

// The links to the host's OS disk nodes go with the host.
void removeDiskLinks() {
  const std::string prefix = std::string(kSandboxOsDir).substr(5) + "/";
  char buf[PATH_MAX];
  for (const std::string& name : listDir("/dev")) {
    std::string path = "/dev/" + name;
    ssize_t n = readlink(path.c_str(), buf, sizeof buf - 1);
    if (n > 0 && startsWith(std::string(buf, static_cast<size_t>(n)), prefix))
      unlink(path.c_str());
  }
}

}  // namespace

std::string simBinary() {
  return QZSIM_BINARY;
}

bool enterNamespace(std::string* error) {
  if (ns().entered)
    return true;
  if (getuid() != 0) {
    if (!enterUserNamespace(error))
      return false;
  } else if (unshare(CLONE_NEWNS | CLONE_NEWUTS) != 0) {
    return sysFail(error, "unshare(mount+UTS namespace)");
  }
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return sysFail(error, "make mounts private");
  // /dev/qz and the folder of OS disk nodes must exist to be bound per
  // host, and /dev/sdX come and go with the host: a writable overlay whose
  // changes stay in a scratch file system of this namespace adds them
  // without touching the machine's /dev.
  Scratch scratch;
  if (!scratch.open(error))
    return false;
  makeDirs(scratch.dir + "/devlayer/qz");
  makeDirs(scratch.dir + "/devlayer" + std::string(kSandboxOsDir).substr(4));
  if (!overlay("/dev", scratch.dir + "/devlayer", scratch.dir, error, scratch.dir + "/devrw"))
    return false;
  ns().entered = true;
  return true;
}

bool actAsHost(const std::string& root, const std::string& host, std::string* error,
               const std::string& binary) {
  if (!ns().entered) {
    *error = "actAsHost needs a private namespace (enterNamespace)";
    return false;
  }
  leaveHost();
  Host h;
  try {
    Db db(dbPath(root));
    h = Sim::loadHost(db, host);
  } catch (const ToolError& e) {
    *error = e.text;
    return false;
  } catch (const DbError& e) {
    *error = e.what();
    return false;
  }
  std::string dir = hostDir(root, host);
  // The host's own name and machine id.
  if (sethostname(host.c_str(), host.size()) != 0)
    return sysFail(error, "sethostname " + host);
  if (!mountMachineId(root, host, error))
    return false;
  if (!mountTools(h, binary, error) || !bindHostFolder(devQzDir(root, host), "/dev/qz", error) ||
      !bindHostFolder(devOsDir(root, host), kSandboxOsDir, error) ||
      !startSysBlock(root, host, binary, error))
    return false;
  ns().hostMounts.push_back("/sys/block");
  // Now that the sandbox shows the host, the sync also links /dev/sdX.
  if (!syncFiles(root, host, error))
    return false;
  makeDirs(dir + "/qzfi_config");
  makeDirs(dir + "/qzfi_log");
  setenv("QZSIM_ROOT", root.c_str(), 1);
  setenv("QZSIM_HOST", host.c_str(), 1);
  setenv("QZFI_CONFIG_DIR", (dir + "/qzfi_config").c_str(), 1);
  setenv("QZFI_LOG_DIR", (dir + "/qzfi_log").c_str(), 1);
  return true;
}

void leaveHost() {
  if (ns().entered)
    removeDiskLinks();
  auto& mounts = ns().hostMounts;
  for (auto it = mounts.rbegin(); it != mounts.rend(); ++it) umount2(it->c_str(), MNT_DETACH);
  mounts.clear();
  stopSysBlock();
}

namespace {

void drain(int outFd, int errFd, CommandResult* r) {
  pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
  int open = 2;
  char buf[8192];
  while (open > 0) {
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR)
        continue;
      break;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR)))
        continue;
      ssize_t n = read(fds[i].fd, buf, sizeof buf);
      if (n > 0) {
        (i == 0 ? r->out : r->err).append(buf, static_cast<size_t>(n));
      } else {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
}

CommandResult runProgram(const std::string& program, const std::vector<std::string>& argv,
                         const std::vector<std::string>& env) {
  CommandResult r;
  int out[2], err[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
    return r;
  pid_t pid = fork();
  if (pid == 0) {
    dup2(out[1], 1);
    dup2(err[1], 2);
    for (const auto& e : env) putenv(strdup(e.c_str()));
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    if (program.find('/') == std::string::npos)
      execvp(program.c_str(), args.data());
    else
      execv(program.c_str(), args.data());
    _exit(127);
  }
  close(out[1]);
  close(err[1]);
  drain(out[0], err[0], &r);
  int status = 0;
  waitpid(pid, &status, 0);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return r;
}

}  // namespace

CommandResult runCommand(const std::vector<std::string>& argv,
                         const std::vector<std::string>& env) {
  if (argv.empty())
    return CommandResult();
  return runProgram(argv[0], argv, env);
}

CommandResult simAdmin(const std::string& root, const std::vector<std::string>& args) {
  std::vector<std::string> argv = {"qzsim"};
  argv.insert(argv.end(), args.begin(), args.end());
  return runProgram(simBinary(), argv, {"QZSIM_ROOT=" + root});
}

CommandResult simTool(const std::string& root, const std::string& host,
                      const std::vector<std::string>& toolAndArgs) {
  return runProgram(simBinary(), toolAndArgs, {"QZSIM_ROOT=" + root, "QZSIM_HOST=" + host});
}

CommandResult simTool(const std::string& root, const std::string& host,
                      const std::string& commandLine) {
  return simTool(root, host, splitBlanks(commandLine));
}

}  // namespace qzsim
