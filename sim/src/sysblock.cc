// qzsim-sysblock: the simulated /sys/block of one host, a FUSE file system
// that a sandbox mounts over /sys/block. It shows one folder per OS path of
// the host, each with device/delete; writing "1" to a delete file takes the
// path away before the write returns, as the kernel does, so the folder is
// gone for the next open. Everything is read from the simulation database
// at each request, so paths attached later show at once.
//
// Requests are served by several threads, each with its own connection to
// the database: a lookup or a listing never waits behind a delete of
// another path (which waits for the database's write lock and then brings
// up to date the device nodes of that path's disk only).
//
// Usage (run by the sandbox): qzsim-sysblock ROOT HOST MOUNTPOINT READYFD
// It mounts, writes "ok\n" (or why it could not) to READYFD and serves until
// it is killed.
#define FUSE_USE_VERSION 34
#include <fcntl.h>
#include <fuse_lowlevel.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "db.h"
#include "sim.h"
#include "text.h"

namespace {

using qzsim::Db;
using qzsim::Value;

// Inode numbers: 1 is the root; a path's folder, its device folder and its
// delete file get three numbers from the path's index.
enum Kind { kPathDir = 0, kDeviceDir = 1, kDeleteFile = 2 };

struct Server {
  std::string root, host;
  std::mutex mutex;  // guards index and names
  std::map<std::string, uint64_t> index;
  std::vector<std::string> names;

  // This thread's connection to the database.
  Db& db() {
    thread_local std::unique_ptr<Db> conn;
    if (!conn)
      conn = std::make_unique<Db>(qzsim::dbPath(root));
    return *conn;
  }

  fuse_ino_t ino(const std::string& name, Kind kind) {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = index.find(name);
    if (it == index.end()) {
      it = index.emplace(name, names.size()).first;
      names.push_back(name);
    }
    return 2 + it->second * 3 + kind;
  }
  // The path an inode belongs to; false for the root or an unknown inode.
  bool decode(fuse_ino_t ino, std::string* name, Kind* kind) {
    std::lock_guard<std::mutex> lock(mutex);
    if (ino < 2 || (ino - 2) / 3 >= names.size())
      return false;
    *name = names[(ino - 2) / 3];
    *kind = static_cast<Kind>((ino - 2) % 3);
    return true;
  }
  // A database that cannot be read shows no path.
  bool present(const std::string& name) {
    try {
      return db().queryInt("SELECT count(*) FROM paths WHERE host=? AND osname=?", {host, name},
                           0) > 0;
    } catch (...) {
      return false;
    }
  }
  std::vector<std::string> osnames() {
    std::vector<std::string> out;
    try {
      for (const auto& r :
           db().query("SELECT osname FROM paths WHERE host=? ORDER BY osname", {host}))
        out.push_back(r[0].s);
    } catch (...) {
      out.clear();
    }
    return out;
  }
  // Takes the path away, as a write of "1" to its delete file does.
  bool remove(const std::string& name) {
    Db* conn = nullptr;
    try {
      conn = &db();
      conn->begin();
      qzsim::Sim s(*conn, root, host);
      s.deleteOsPath(name);
      s.sync(true);
      conn->commit();
      return true;
    } catch (...) {
      try {
        if (conn)
          conn->rollback();
      } catch (...) {
      }
      return false;
    }
  }
};

Server& server(fuse_req_t req) {
  return *static_cast<Server*>(fuse_req_userdata(req));
}

struct stat attrOf(fuse_ino_t ino, Kind kind) {
  struct stat st;
  memset(&st, 0, sizeof st);
  st.st_ino = ino;
  if (kind == kDeleteFile) {
    st.st_mode = S_IFREG | 0200;
    st.st_nlink = 1;
    st.st_size = 4096;
  } else {
    st.st_mode = S_IFDIR | 0755;
    st.st_nlink = 2;
  }
  return st;
}

void replyEntry(fuse_req_t req, fuse_ino_t ino, Kind kind) {
  fuse_entry_param e;
  memset(&e, 0, sizeof e);
  e.ino = ino;
  e.attr = attrOf(ino, kind);
  // Nothing is cached: a deleted path must be gone for the very next lookup.
  e.attr_timeout = 0;
  e.entry_timeout = 0;
  fuse_reply_entry(req, &e);
}

void opInit(void*, fuse_conn_info* conn) {
  if (conn->capable & FUSE_CAP_ATOMIC_O_TRUNC)
    conn->want |= FUSE_CAP_ATOMIC_O_TRUNC;
}

void opLookup(fuse_req_t req, fuse_ino_t parent, const char* rawName) {
  Server& s = server(req);
  std::string name = rawName, owner;
  Kind kind;
  if (parent == FUSE_ROOT_ID) {
    if (!s.present(name))
      return (void)fuse_reply_err(req, ENOENT);
    return replyEntry(req, s.ino(name, kPathDir), kPathDir);
  }
  if (!s.decode(parent, &owner, &kind) || !s.present(owner))
    return (void)fuse_reply_err(req, ENOENT);
  if (kind == kPathDir && name == "device")
    return replyEntry(req, s.ino(owner, kDeviceDir), kDeviceDir);
  if (kind == kDeviceDir && name == "delete")
    return replyEntry(req, s.ino(owner, kDeleteFile), kDeleteFile);
  fuse_reply_err(req, ENOENT);
}

void opGetattr(fuse_req_t req, fuse_ino_t ino, fuse_file_info*) {
  Server& s = server(req);
  std::string name;
  Kind kind;
  if (ino == FUSE_ROOT_ID) {
    struct stat st = attrOf(ino, kPathDir);
    return (void)fuse_reply_attr(req, &st, 0);
  }
  if (!s.decode(ino, &name, &kind) || !s.present(name))
    return (void)fuse_reply_err(req, ENOENT);
  struct stat st = attrOf(ino, kind);
  fuse_reply_attr(req, &st, 0);
}

// Truncation by "echo 1 > delete" changes nothing.
void opSetattr(fuse_req_t req, fuse_ino_t ino, struct stat*, int, fuse_file_info* fi) {
  opGetattr(req, ino, fi);
}

void addEntry(fuse_req_t req, std::string& buf, const std::string& name, fuse_ino_t ino,
              Kind kind) {
  struct stat st = attrOf(ino, kind);
  size_t need = fuse_add_direntry(req, nullptr, 0, name.c_str(), nullptr, 0);
  size_t old = buf.size();
  buf.resize(old + need);
  fuse_add_direntry(req, &buf[old], need, name.c_str(), &st, static_cast<off_t>(old + need));
}

void opReaddir(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, fuse_file_info*) {
  Server& s = server(req);
  std::string buf, name;
  Kind kind = kPathDir;
  if (ino == FUSE_ROOT_ID) {
    addEntry(req, buf, ".", ino, kPathDir);
    addEntry(req, buf, "..", ino, kPathDir);
    for (const auto& n : s.osnames()) addEntry(req, buf, n, s.ino(n, kPathDir), kPathDir);
  } else if (s.decode(ino, &name, &kind) && kind != kDeleteFile && s.present(name)) {
    addEntry(req, buf, ".", ino, kind);
    addEntry(req, buf, "..", ino, kPathDir);
    if (kind == kPathDir)
      addEntry(req, buf, "device", s.ino(name, kDeviceDir), kDeviceDir);
    else
      addEntry(req, buf, "delete", s.ino(name, kDeleteFile), kDeleteFile);
  } else {
    return (void)fuse_reply_err(req, ENOENT);
  }
  size_t from = static_cast<size_t>(off);
  if (from >= buf.size())
    return (void)fuse_reply_buf(req, nullptr, 0);
  fuse_reply_buf(req, buf.data() + from, std::min(buf.size() - from, size));
}

void opOpen(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi) {
  Server& s = server(req);
  std::string name;
  Kind kind;
  if (!s.decode(ino, &name, &kind) || !s.present(name))
    return (void)fuse_reply_err(req, ENOENT);
  if (kind != kDeleteFile)
    return (void)fuse_reply_err(req, EISDIR);
  if ((fi->flags & O_ACCMODE) != O_WRONLY)
    return (void)fuse_reply_err(req, EACCES);  // the delete file cannot be read
  fi->direct_io = 1;
  fuse_reply_open(req, fi);
}

void opWrite(fuse_req_t req, fuse_ino_t ino, const char* data, size_t size, off_t,
             fuse_file_info*) {
  Server& s = server(req);
  std::string name;
  Kind kind;
  if (!s.decode(ino, &name, &kind) || kind != kDeleteFile || !s.present(name))
    return (void)fuse_reply_err(req, ENOENT);
  if (qzsim::trim(std::string(data, size)) != "1")
    return (void)fuse_reply_err(req, EINVAL);
  if (!s.remove(name))
    return (void)fuse_reply_err(req, EIO);
  fuse_reply_write(req, size);
}

void opCreate(fuse_req_t req, fuse_ino_t, const char*, mode_t, fuse_file_info*) {
  fuse_reply_err(req, EACCES);
}

void report(int fd, const std::string& text) {
  if (write(fd, text.data(), text.size()) < 0) {
    // The sandbox gave up waiting; nothing else to tell.
  }
  close(fd);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    fprintf(stderr, "Usage: qzsim-sysblock ROOT HOST MOUNTPOINT READYFD\n");
    return 2;
  }
  int ready = atoi(argv[4]);
  Server srv;
  srv.root = argv[1];
  srv.host = argv[2];
  try {
    qzsim::Sim::loadHost(srv.db(), srv.host);
  } catch (const qzsim::ToolError& e) {
    report(ready, e.text + "\n");
    return 1;
  } catch (const qzsim::DbError& e) {
    report(ready, std::string(e.what()) + "\n");
    return 1;
  }

  fuse_lowlevel_ops ops;
  memset(&ops, 0, sizeof ops);
  ops.init = opInit;
  ops.lookup = opLookup;
  ops.getattr = opGetattr;
  ops.setattr = opSetattr;
  ops.readdir = opReaddir;
  ops.open = opOpen;
  ops.write = opWrite;
  ops.create = opCreate;
  char prog[] = "qzsim-sysblock", opt[] = "-o", fsname[] = "fsname=qzsim-sysblock,subtype=qzsim";
  char* args[] = {prog, opt, fsname};
  fuse_args fargs = FUSE_ARGS_INIT(3, args);
  fuse_session* se = fuse_session_new(&fargs, &ops, sizeof ops, &srv);
  if (!se) {
    report(ready, "cannot start a FUSE session\n");
    return 1;
  }
  if (fuse_session_mount(se, argv[3]) != 0) {
    report(ready, std::string("cannot mount FUSE on ") + argv[3] + " (is /dev/fuse there?)\n");
    fuse_session_destroy(se);
    return 1;
  }
  report(ready, "ok\n");
  // Serves until killed; the sandbox that mounted it also unmounts it.
  fuse_loop_config loop;
  memset(&loop, 0, sizeof loop);
  loop.clone_fd = 0;
  loop.max_idle_threads = 4;
  int rc = fuse_session_loop_mt(se, &loop);
  fuse_session_destroy(se);
  return rc == 0 ? 0 : 1;
}
