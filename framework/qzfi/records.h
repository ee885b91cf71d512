/* Records that the snapshot framework shares with its plug-ins.
 *
 * The framework owns every record here; a plug-in reads and fills them and
 * frees only what it allocated through qzfi_alloc_buf. The offsets that
 * plug-ins rely on are fixed for LP64 and checked below. */
#ifndef QZFI_RECORDS_H
#define QZFI_RECORDS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Status codes shared by every operation. */
enum {
  QFI_SUCCESS = 0,
  QFI_CLAIMED = 1,      /* claim only; also a failed low-level step or corrupt blob */
  QFI_E_INVALID = 3,    /* null input, or disks that differ from what was expected */
  QFI_E_SESSION = 4,    /* classic operation asks for the session variant */
  QFI_E_NOMEM = 5,      /* allocation failed, or a tool failed inside an engine step */
  QFI_E_FAILED = 6,     /* operation failed, also every caught exception */
  QFI_E_NOVERSION = 7,  /* no version record at init */
  QFI_E_STAT = 18,      /* the device node could not be examined */
  QFI_E_INIT = 30,      /* initialisation failed */
  QFI_E_NOOBJID = 1024, /* no object id could be made */
  QFI_E_SETOWNER = 1091 /* the owner of a rebuilt device node could not be set */
};

/* Object id kinds. */
enum {
  QZFI_OBJID_SNAPSHOT = 1, /* a snapshot identity exported by the session */
  QZFI_OBJID_INTERNAL = 2, /* the internal identity of a volume built by a plug-in */
  QZFI_OBJID_SUBOBJ = 3    /* a sub-object added under a node */
};

typedef struct qzfi_objid {
  char* name; /* path name, zero-terminated */
  int32_t kind;
  int32_t len; /* strlen(name) + 1 */
} qzfi_objid;

typedef enum qfi_access_type {
  QFI_ACCESS_NONE = 0,
  QFI_ACCESS_READ = 1,
  QFI_ACCESS_WRITE = 2
} qfi_access_type;

typedef struct qfi_access {
  int32_t type;      /* qfi_access_type */
  int32_t reserved;  /* padding, kept zero */
  qzfi_objid* objid; /* object id handed back by deportTree */
  void* framework;   /* framework bookkeeping, not read by plug-ins */
} qfi_access;

typedef struct qfi_domain {
  uint32_t type;               /* 0: node type word */
  uint32_t flags;              /* 4: framework flags */
  qzfi_objid* objid;           /* 8: the node's object identity */
  void* pvt;                   /* 16: private-data handle (CFiPrivateData*) */
  qfi_access* access;          /* 24: frozen-image access of the node */
  struct qfi_domain** parents; /* 32: parent nodes */
  int32_t nparents;            /* 40 */
  int32_t level;               /* 44: depth in the storage stack */
  char* provider;              /* 48: provider that claimed the node */
  struct qfi_domain* related;  /* 56: alternate or source node */
  void* session;               /* 64: session the node belongs to */
  void* framework;             /* 72: framework bookkeeping */
  uint64_t state;              /* 80: node state word */
  uint64_t stamp;              /* 88: node time stamp word */
  char reserved[56];           /* 96: framework use only */
  char* name;                  /* 152: display name of the node */
} qfi_domain;

typedef struct qfi_blob {
  uint64_t len; /* bytes of data, terminating zero included */
  char* data;
  int32_t flag; /* 1 once a plug-in has filled the blob */
} qfi_blob;

/* Like the operation type below, the dispositions and intents hold any
   value a caller passes. */
typedef enum qfi_disposition {
  QFI_DISP_NONE = 0,
  QFI_DISP_DELETE = 1, /* delete the snapshot object */
  QFI_DISP_KEEP = 2,
  QFI_DISP_DEPORT = 3,
  QFI_DISP_ANY = 0x7fffffff
} qfi_disposition;

/* A plug-in gets whatever value its caller passes and rejects the ones it
   does not know: the type holds any such value. */
typedef enum qfi_op_providerstate {
  QFI_PS_RESTORE = 0,
  QFI_PS_SAVE = 1,
  QFI_PS_ANY = 0x7fffffff
} qfi_op_providerstate;

typedef enum qfi_intent {
  QFI_INTENT_NONE = 0,
  QFI_INTENT_BACKUP = 1,
  QFI_INTENT_RESTORE = 2,
  QFI_INTENT_ANY = 0x7fffffff
} qfi_intent;

typedef struct qfi_splitnode {
  qfi_domain* node;
  qzfi_objid* objid; /* the split object */
  char* split_type;
  int32_t disposition;
  int32_t reserved;
} qfi_splitnode;

typedef struct qfi_accessnode {
  qfi_domain* node;
  qzfi_objid* objid;
  int32_t disposition; /* 16: qfi_disposition, 0 for none */
  int32_t reserved;
} qfi_accessnode;

typedef struct qfi_quiescenode {
  qfi_domain* node;
  qzfi_objid* objid;
  int32_t state;
  int32_t reserved;
} qfi_quiescenode;

typedef struct qfi_node_subobj_list {
  qfi_domain* node;
  qzfi_objid** subobjs;
  int32_t nsubobjs; /* 16 */
  int32_t reserved;
  struct qfi_node_subobj_list* next; /* 24 */
} qfi_node_subobj_list;

typedef struct qfi_provider_list {
  char* provider;
  char** names; /* object kinds the provider handles */
  int32_t nnames;
  int32_t reserved;
  struct qfi_provider_list* next;
} qfi_provider_list;

typedef struct qfi_node {
  char* name;
  char* provider;
  qzfi_objid* objid;
} qfi_node;

typedef struct qfi_node_list {
  qfi_node node;
  struct qfi_node_list* next;
} qfi_node_list;

typedef struct qfi_assoc {
  qfi_node parent;
  qfi_node child;
} qfi_assoc;

typedef struct qfi_assoc_list {
  qfi_assoc assoc;
  struct qfi_assoc_list* next;
} qfi_assoc_list;

typedef struct qfi_group_node_list {
  qfi_node node;
  char* group;
  struct qfi_group_node_list* next;
} qfi_group_node_list;

typedef struct qfi_fim_list {
  char* fim;
  struct qfi_fim_list* next;
} qfi_fim_list;

typedef struct qfi_pgn_node_list {
  qfi_domain* node;
  struct qfi_pgn_node_list* next;
} qfi_pgn_node_list;

typedef struct qfi_enclosure_node_list {
  char* enclosure;
  char* vendor;
  struct qfi_enclosure_node_list* next;
} qfi_enclosure_node_list;

typedef struct qfi_host_node_list {
  char* host;
  struct qfi_host_node_list* next;
} qfi_host_node_list;

typedef struct qfi_confspec {
  char* name;
  char* value;
  int32_t type;
  int32_t reserved;
} qfi_confspec;

typedef struct qfi_msg_info {
  int32_t msgid; /* catalogue number: message index offset + index */
  int32_t severity;
  char* id;     /* MSG_ERROR_* identifier */
  char* text;   /* resolved catalogue text */
  char* source; /* source file that raised it */
  int32_t line;
  int32_t nargs;
  char** args; /* arguments as text */
  struct qfi_msg_info* next;
} qfi_msg_info;

typedef struct qfi_attributes {
  int64_t size;
  int32_t type;
  int32_t flags;
} qfi_attributes;

typedef struct qfi_host_infn {
  char* host;
  char* address;
} qfi_host_infn;

typedef struct qfi_snapreplica_ele {
  char* name;
  char* id;
  int32_t state;
  int32_t reserved;
} qfi_snapreplica_ele;

typedef struct qfi_resource {
  char* name;
  int32_t type;
  int32_t reserved;
} qfi_resource;

typedef struct qfi_bkupset {
  char** paths;
  int32_t npaths;
  int32_t reserved;
} qfi_bkupset;

typedef struct qfi_trie_node {
  char* key;
  struct qfi_trie_node** children;
  int32_t nchildren;
  int32_t reserved;
} qfi_trie_node;

/* Interface version written back by a plug-in's init entry point. */
typedef struct qfi_version {
  uint16_t major;
  uint16_t minor;
  uint16_t micro;
  uint16_t build;
} qfi_version;

typedef struct qfi_locale {
  char* native_language;
} qfi_locale;

/* Start-up record handed to a plug-in's init entry point. */
typedef struct qfi_startup {
  char* host;
  char* program;
  void* framework;
  qfi_locale* locale; /* fourth field: native language, may be null */
} qfi_startup;

/* Framework C helpers. */
qzfi_objid* qzfi_get_objid(const char* name, int len, int kind);
void qzfi_free_objid(qzfi_objid* id);
void* qzfi_alloc_buf(size_t size);
void qzfi_free_buf(void* ptr, size_t size, ...);
int qzfi_build_providerlist_node(qfi_provider_list** list, const char* provider, char** names,
                                 int nnames);
void qzfi_free_providerlist(qfi_provider_list* list);

size_t V_strlcpy(char* dst, const char* src, size_t size);
size_t V_strlncpy(char* dst, const char* src, size_t n, size_t size);
size_t V_strlcat(char* dst, const char* src, size_t size);
int V_snprintf(char* dst, size_t size, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
int V_sscanf(const char* src, const char* fmt, ...) __attribute__((format(scanf, 2, 3)));

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
#define QZFI_OFFSET_CHECK(rec, field, off) \
  static_assert(offsetof(rec, field) == (off), #rec "." #field " must stay at " #off)
QZFI_OFFSET_CHECK(qzfi_objid, name, 0);
QZFI_OFFSET_CHECK(qzfi_objid, kind, 8);
QZFI_OFFSET_CHECK(qzfi_objid, len, 12);
QZFI_OFFSET_CHECK(qfi_access, type, 0);
QZFI_OFFSET_CHECK(qfi_access, objid, 8);
QZFI_OFFSET_CHECK(qfi_domain, type, 0);
QZFI_OFFSET_CHECK(qfi_domain, objid, 8);
QZFI_OFFSET_CHECK(qfi_domain, pvt, 16);
QZFI_OFFSET_CHECK(qfi_domain, access, 24);
QZFI_OFFSET_CHECK(qfi_domain, related, 56);
QZFI_OFFSET_CHECK(qfi_domain, state, 80);
QZFI_OFFSET_CHECK(qfi_domain, stamp, 88);
QZFI_OFFSET_CHECK(qfi_domain, name, 152);
QZFI_OFFSET_CHECK(qfi_blob, len, 0);
QZFI_OFFSET_CHECK(qfi_blob, data, 8);
QZFI_OFFSET_CHECK(qfi_blob, flag, 16);
QZFI_OFFSET_CHECK(qfi_splitnode, objid, 8);
QZFI_OFFSET_CHECK(qfi_accessnode, disposition, 16);
QZFI_OFFSET_CHECK(qfi_node_subobj_list, node, 0);
QZFI_OFFSET_CHECK(qfi_node_subobj_list, subobjs, 8);
QZFI_OFFSET_CHECK(qfi_node_subobj_list, nsubobjs, 16);
QZFI_OFFSET_CHECK(qfi_node_subobj_list, next, 24);
QZFI_OFFSET_CHECK(qfi_startup, locale, 24);
#undef QZFI_OFFSET_CHECK
#endif

#endif /* QZFI_RECORDS_H */
