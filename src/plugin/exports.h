// What libqzvmfi.so exports, and nothing else: the framework finds these by
// name. Each entry point forwards to the operation of the plug-in singleton
// that its name gives (qzvmfi_fi_pgn_init_node: initNode); the exceptions
// are preselect, objctl, init and fini. Entry points that take one node and
// an array of nodes with a count (select, make and the others) take the
// single node just before the array.
#ifndef QZVMFI_PLUGIN_EXPORTS_H
#define QZVMFI_PLUGIN_EXPORTS_H

#include <stdint.h>

#include <string>

#include <qzfi/records.h>

extern "C" {

// The plug-in's name, "qzvmfi", in the framework's three string forms.
extern std::string cfi_pgn_name_str;
extern std::string cfi_pgn_name_tstr;
extern std::wstring cfi_pgn_name_wstr;
// "\n@(#) Brovik_<version>", for version-identification tools.
extern const char TP_STATIC_RELEASE_STR[];

int32_t qzvmfi_fi_pgn_post_deport(qfi_domain* node, qfi_domain* altNode);
int32_t qzvmfi_fi_pgn_get_snapdiff(qfi_domain* node, qfi_snapreplica_ele* a, qfi_snapreplica_ele* b,
                                   qfi_trie_node* trie);
int32_t qzvmfi_fi_pgn_getSnapshotSetId(qfi_domain* node, char** id);
// The session is the session manager's.
int32_t qzvmfi_fi_pgn_update_snapshot_handle(qfi_snapreplica_ele* element);
int32_t qzvmfi_fi_pgn_update_snapshot_id(qfi_domain* node, qfi_domain* altNode,
                                         qfi_snapreplica_ele* element, int flags);
int32_t qzvmfi_fi_pgn_createSnapReplicaNode(qfi_domain* node, qfi_snapreplica_ele* element);
int32_t qzvmfi_fi_pgn_set_restorepaths(qfi_domain* node, char* paths, int count);
int32_t qzvmfi_fi_pgn_set_comp_status(qfi_domain* node, int a, char* b, int c);
int32_t qzvmfi_fi_pgn_set_op_status(qfi_domain* node, int status);
int32_t qzvmfi_fi_pgn_get_app_status(qfi_domain* node, int a, void* b);
int32_t qzvmfi_fi_pgn_get_backupset(qfi_domain* node, int a, char** b, int c, qfi_bkupset* set);
int32_t qzvmfi_fi_pgn_refresh_tree(qfi_domain* node, int a, int b, qfi_resource* resource, int c,
                                   int* d, void* e, int f);
int32_t qzvmfi_fi_pgn_pre_deport_resource(char* name, int flags, char* text);
int32_t qzvmfi_fi_pgn_unformat(char** disks, int count, int flags);
int32_t qzvmfi_fi_pgn_is_parent_pgn(char* disk, int* isParent, int flags);
int32_t qzvmfi_fi_pgn_deport_resource(char* a, char* b, char* c, char* d, int flags);
int32_t qzvmfi_fi_pgn_online_resource(char** disks, int count, char* a, char* b, char* c, char* d,
                                      int flags, char*** paths, int* pathCount);
int32_t qzvmfi_fi_pgn_enumerate_host_nodes(qfi_host_node_list** list, int* count, char* text);
int32_t qzvmfi_fi_pgn_format(char** disks, int count, char* name, char* type, char* options,
                             int flags, char*** paths, int* pathCount);
int32_t qzvmfi_fi_pgn_import_resource(char** names, char* a, char* b, char* c, int flags,
                                      char** out, char* d);
int32_t qzvmfi_fi_pgn_enumerate_enclosures(qfi_enclosure_node_list** list, int* count, char* text);
// 3 without the calling: a negative count, or a count without both arrays.
int32_t qzvmfi_fi_pgn_translate_resource_names(char** names, int count, char** out);
int32_t qzvmfi_fi_pgn_start_build_alttree(qfi_domain* node, qzfi_objid** ids, void* context);
int32_t qzvmfi_fi_pgn_revisit_pgn_nodes(qfi_pgn_node_list* list);
int32_t qzvmfi_fi_pgn_res_status(qzfi_objid* id, long flags, long* status, qfi_msg_info** info);
int32_t qzvmfi_fi_pgn_query_valid_secondaries(char* text, qzfi_objid*** ids, long* count);
int32_t qzvmfi_fi_pgn_get_status(qzfi_objid** a, qzfi_objid** b, long count, char* c, long d,
                                 long* e);
int32_t qzvmfi_fi_pgn_resync(qzfi_objid** a, qzfi_objid** b, long count, char* c, char* d, long e,
                             long* f);
int32_t qzvmfi_fi_pgn_restore(qzfi_objid** a, qzfi_objid** b, long count, char* c, char* d,
                              char*** e, long* f, long g, long* h);
int32_t qzvmfi_fi_pgn_disable_access(qfi_node_subobj_list* list, long flags);
int32_t qzvmfi_fi_pgn_enable_access(qfi_node_subobj_list* list, long flags, int reserved,
                                    int options);
int32_t qzvmfi_fi_pgn_del_locale_message(char** text);
int32_t qzvmfi_fi_pgn_get_locale_message(int* code, qfi_msg_info* info, char const* language,
                                         char** text);
int32_t qzvmfi_fi_pgn_del_last_error(qfi_msg_info** list);
int32_t qzvmfi_fi_pgn_get_last_error(qfi_msg_info** list);
int32_t qzvmfi_fi_pgn_check_node_existence(qfi_domain* node, int* exists);
int32_t qzvmfi_fi_pgn_get_associated_nodes(qfi_node* node, qfi_node_list** list);
int32_t qzvmfi_fi_pgn_isvalid_node_association(qfi_assoc* assoc, int* valid);
int32_t qzvmfi_fi_pgn_enumerate_associations(qfi_assoc_list** list);
int32_t qzvmfi_fi_pgn_enumerate_fims(qfi_fim_list** list);
int32_t qzvmfi_fi_pgn_enumerate_group_nodes(qfi_group_node_list** list);
// 3 without an output list.
int32_t qzvmfi_fi_pgn_enumerate_nodes(qfi_node_list** list, int* count, int flags, char* text);
// 3 without an output list.
int32_t qzvmfi_fi_pgn_get_provider_info(qfi_provider_list** list);
int32_t qzvmfi_fi_pgn_process_providerstate(qfi_domain* node, qfi_blob* blob,
                                            qfi_op_providerstate op);
int32_t qzvmfi_fi_pgn_getattr(qfi_domain* node, qfi_domain* altNode, qfi_splitnode* split,
                              qfi_attributes* attributes);
int32_t qzvmfi_fi_pgn_interpose(qfi_domain* node, qzfi_objid** id, qzfi_objid*** ids, int* count);
int32_t qzvmfi_fi_pgn_cache_enable(qfi_domain* node, int flags);
int32_t qzvmfi_fi_pgn_cache_disable(qfi_domain* node, int flags);
int32_t qzvmfi_fi_pgn_build_alttree(qfi_domain* node, char* splitType, qzfi_objid** primary,
                                    qzfi_objid** secondary, int count, qzfi_objid** out);
// 3 without the calling when any pointer is null.
int32_t qzvmfi_fi_pgn_subobj_list(qfi_domain* node, qzfi_objid*** subobjs, int* count);
int32_t qzvmfi_fi_pgn_online(qfi_domain* node, qfi_domain* altNode, int bringOnline,
                             qfi_disposition disposition);
int32_t qzvmfi_fi_pgn_dispose(qfi_domain* node, qfi_domain* altNode, qfi_splitnode* target,
                              qfi_disposition disposition);
int32_t qzvmfi_fi_pgn_deinit_node(qfi_domain* node);
// 3 without the calling when the node or the configuration record is null.
int32_t qzvmfi_fi_pgn_config(qfi_domain* node, int op, char* name, qfi_confspec* confspec);
int32_t qzvmfi_fi_pgn_reaccess_altnode(qfi_domain* node, qzfi_objid* a, qzfi_objid* b, char* text,
                                       qzfi_objid** primary, qzfi_objid** secondary, int count,
                                       qfi_intent intent);
int32_t qzvmfi_fi_pgn_reaccess_tmpobj(qfi_domain* node, qzfi_objid* id, char* a, qfi_domain* tmp,
                                      char* b, qfi_intent intent);
int32_t qzvmfi_fi_pgn_pre_prepare(qfi_domain* node);
int32_t qzvmfi_fi_pgn_import_tree(qfi_domain* node, qzfi_objid** primary, qzfi_objid** secondary,
                                  int count, qzfi_objid** out);
int32_t qzvmfi_fi_pgn_deport_tree(qfi_domain* node, qfi_domain* altNode, qfi_accessnode* access);
int32_t qzvmfi_fi_pgn_init_remnode(qfi_domain* node, qfi_domain* parent, qfi_domain* altNode,
                                   bool flag);
int32_t qzvmfi_fi_pgn_init_altnode(qfi_domain* node, qfi_domain* parent, qfi_domain* altNode,
                                   bool flag);
int32_t qzvmfi_fi_pgn_init_node(qfi_domain* node, qfi_domain** parents, int count,
                                qzfi_objid* object);
int32_t qzvmfi_fi_pgn_supports_fitype(qfi_domain* node, char* fiType);
// 0 without the calling when any pointer is null.
int32_t qzvmfi_fi_pgn_claim(qzfi_objid* object, qzfi_objid*** secondaryObjects,
                            int* secondaryCount);
int32_t qzvmfi_fi_pgn_errmsg(int code, char const** text);
// Adds the split nodes to the session manager's session.
int32_t qzvmfi_fi_pgn_preselect(qfi_splitnode* node, char* text, qfi_splitnode** nodes, int count);
int32_t qzvmfi_fi_pgn_set_import_options(qfi_splitnode* node, qfi_splitnode** nodes, int count,
                                         qfi_host_infn* host, int flags, void* options);
int32_t qzvmfi_fi_pgn_verify_qscombos(qfi_splitnode* node, qfi_splitnode** nodes, int count);
int32_t qzvmfi_fi_pgn_isready(char* text, qfi_splitnode* node, qfi_splitnode** nodes, int count);
int32_t qzvmfi_fi_pgn_select(char* text, qfi_splitnode* node, qfi_splitnode** nodes, int count);
int32_t qzvmfi_fi_pgn_prepare(char* text, qfi_splitnode* node, qfi_splitnode** nodes, int count,
                              int flags);
void qzvmfi_fi_pgn_unquiesce(qfi_quiescenode* node, qfi_quiescenode** nodes, int count);
int32_t qzvmfi_fi_pgn_quiesce(qfi_quiescenode* node, qfi_quiescenode** nodes, int count,
                              char* text);
// Runs the control name with the arguments of the input text; the output
// text (strdup'd: the caller frees it) lists the output arguments, and the
// operation's status goes to result (3 when the input text is malformed).
// 0, or 1 when the delayed initialisation failed.
int32_t qzvmfi_fi_pgn_objctl(const char* name, const char* input, char** output, int64_t* result);
void qzvmfi_fi_pgn_fini(void);
// 7 without a version record; 30 when the plug-in cannot start.
int32_t qzvmfi_fi_pgn_init(qfi_startup* startup, qfi_version* version, const char* fimName);
int32_t qzvmfi_fi_pgn_make(char* text, qfi_splitnode* node, qfi_splitnode** nodes, int count,
                           qzfi_objid*** ids, int* idCount);

}  // extern "C"

#endif  // QZVMFI_PLUGIN_EXPORTS_H
