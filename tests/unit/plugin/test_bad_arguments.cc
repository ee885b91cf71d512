// Every entry point of the plug-in called with null pointers, and with
// pointers to garbage (records of nonsense values whose names are hostile
// texts) and garbage counts, each call in a child process of its own: it
// returns its documented status, or, where the plug-in stops the process by
// design, the test names the assertion that stopped it.
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <functional>

#include <gtest/gtest.h>

#include "../plugin_env.h"
#include "plugin/exports.h"

namespace {

using qzfi_pdk_4_4::CFiExecSeam;
using qzvmfi_test::PluginEnv;

// What a call in a child came to: the status it returned, or the end of a
// process that stopped, with what it printed on its error stream.
struct Outcome {
  bool returned = false;
  int32_t status = 0;
  int signal = 0;
  std::string errors;
};

std::string drain(int fd) {
  std::string text;
  char buffer[4096];
  for (ssize_t got; (got = read(fd, buffer, sizeof buffer)) > 0;) {
    text.append(buffer, static_cast<size_t>(got));
  }
  return text;
}

Outcome inChild(const std::function<int32_t()>& call) {
  int result[2];
  int errors[2];
  if (pipe(result) != 0 || pipe(errors) != 0) {
    ADD_FAILURE() << "no pipe";
    return {};
  }
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    close(result[0]);
    close(errors[0]);
    dup2(errors[1], 2);
    const int32_t status = call();
    (void)!write(result[1], &status, sizeof status);
    _exit(0);
  }
  close(result[1]);
  close(errors[1]);
  Outcome outcome;
  outcome.errors = drain(errors[0]);
  const std::string status = drain(result[0]);
  close(result[0]);
  close(errors[0]);
  int waited = 0;
  waitpid(child, &waited, 0);
  if (WIFEXITED(waited) && status.size() == sizeof(int32_t)) {
    outcome.returned = true;
    std::memcpy(&outcome.status, status.data(), sizeof(int32_t));
  } else if (WIFSIGNALED(waited)) {
    outcome.signal = WTERMSIG(waited);
  }
  return outcome;
}

// What an entry point must do: return status, or stop the process with the
// named assertion text on its error stream.
struct Expected {
  int32_t status;
  const char* stop;
};

Expected returns(int32_t status) {
  return {status, nullptr};
}

Expected stops(const char* assertion) {
  return {0, assertion};
}

struct Case {
  const char* entry;
  const char* arguments;
  std::function<int32_t()> call;
  Expected expected;
};

// Texts that no framework would send, where names and options go.
char kHostileText[] = "$(reboot);`id` ../../etc/passwd\n\"'";
char kLongText[301] = {};

// Records full of nonsense: counts out of range, kinds that do not exist,
// names that are hostile texts. Every pointer in them is null or points to
// another garbage record, so that any use of them stays in memory that is
// there.
struct Garbage {
  Garbage() {
    std::memset(kLongText, 'x', 300);
    objid = {kHostileText, 99, -5};
    access = {77, 0, &objid, nullptr};
    domain.type = 0xffffffffu;
    domain.flags = 0xffffffffu;
    domain.objid = &objid;
    domain.access = &access;
    domain.nparents = -3;
    domain.level = INT_MIN;
    domain.provider = kHostileText;
    domain.related = &domain;
    domain.state = ~0ull;
    domain.name = kLongText;
    ids[0] = &objid;
    ids[1] = nullptr;
    texts[0] = kHostileText;
    texts[1] = kLongText;
    texts[2] = nullptr;
    blob = {std::strlen(kHostileText) + 1, kHostileText, 7};
    split = {&domain, &objid, kHostileText, 12345, 0};
    splits[0] = &split;
    splits[1] = nullptr;
    accessNode = {&domain, &objid, 99, 0};
    quiesce = {&domain, &objid, -1, 0};
    quiesces[0] = &quiesce;
    quiesces[1] = nullptr;
    subobjs = {&domain, ids, -7, 0, nullptr};
    confspec = {kHostileText, kLongText, -1, 0};
    element = {kHostileText, kLongText, -1, 0};
    locale = {kHostileText};
    startup = {kHostileText, kLongText, nullptr, &locale};
    message = {-1, 99, kHostileText, kLongText, kHostileText, -1, 0, nullptr, nullptr};
    node = {kHostileText, kLongText, &objid};
    assoc = {node, node};
    host = {kHostileText, kLongText};
    resource = {kHostileText, -1, 0};
    set = {nullptr, -1, 0};
    trie = {kHostileText, nullptr, -1, 0};
    pgnList = {&domain, nullptr};
  }

  qzfi_objid objid{};
  qfi_access access{};
  qfi_domain domain{};
  qzfi_objid* ids[2]{};
  char* texts[3]{};
  qfi_blob blob{};
  qfi_splitnode split{};
  qfi_splitnode* splits[2]{};
  qfi_accessnode accessNode{};
  qfi_quiescenode quiesce{};
  qfi_quiescenode* quiesces[2]{};
  qfi_node_subobj_list subobjs{};
  qfi_confspec confspec{};
  qfi_snapreplica_ele element{};
  qfi_locale locale{};
  qfi_startup startup{};
  qfi_msg_info message{};
  qfi_node node{};
  qfi_assoc assoc{};
  qfi_host_infn host{};
  qfi_resource resource{};
  qfi_bkupset set{};
  qfi_trie_node trie{};
  qfi_pgn_node_list pgnList{};
  // Places for what an entry point hands back.
  char* text = nullptr;
  char** paths = nullptr;
  char const* constText = nullptr;
  qzfi_objid* id = nullptr;
  qzfi_objid** idList = nullptr;
  int count = 0;
  long number = 0;
  int64_t result = 0;
};

class BadArgumentsTest : public PluginEnv {
 protected:
  void SetUp() override {
    PluginEnv::SetUp();
    CFiExecSeam::answer("/bin/rpm -qa ", 0, {"ZOLKqzvm-8.0.0-1.x86_64\n"});
    // Whatever a call runs fails: the plug-in's own status stands.
    CFiExecSeam::setResponder([](const std::string&, CFiExecSeam::Answer& answer) {
      answer.status = 1;
      return true;
    });
  }

  void TearDown() override {
    qzvmfi_fi_pgn_fini();
    PluginEnv::TearDown();
  }

  void check(const std::vector<Case>& cases) {
    qfi_version version{};
    ASSERT_EQ(0, qzvmfi_fi_pgn_init(nullptr, &version, "bad-arguments"));
    for (const Case& c : cases) {
      const Outcome outcome = inChild(c.call);
      const std::string which = std::string("qzvmfi_fi_pgn_") + c.entry + " with " + c.arguments;
      if (c.expected.stop == nullptr) {
        EXPECT_TRUE(outcome.returned)
            << which << " stopped (signal " << outcome.signal << "): " << outcome.errors;
        EXPECT_EQ(c.expected.status, outcome.status) << which;
      } else {
        EXPECT_EQ(SIGABRT, outcome.signal) << which << " did not stop";
        EXPECT_NE(std::string::npos, outcome.errors.find(c.expected.stop))
            << which << " stopped with: " << outcome.errors;
      }
      ++m_checked;
    }
  }

  size_t m_checked = 0;
};

TEST_F(BadArgumentsTest, EveryEntryPointWithNullPointers) {
  Garbage g;
  const std::vector<Case> cases = {
      {"post_deport", "null nodes", [] { return qzvmfi_fi_pgn_post_deport(nullptr, nullptr); },
       returns(0)},
      {"get_snapdiff", "nulls",
       [] { return qzvmfi_fi_pgn_get_snapdiff(nullptr, nullptr, nullptr, nullptr); }, returns(0)},
      {"getSnapshotSetId", "nulls", [] { return qzvmfi_fi_pgn_getSnapshotSetId(nullptr, nullptr); },
       returns(0)},
      {"update_snapshot_handle", "null element",
       [] { return qzvmfi_fi_pgn_update_snapshot_handle(nullptr); }, returns(0)},
      {"update_snapshot_id", "nulls",
       [] { return qzvmfi_fi_pgn_update_snapshot_id(nullptr, nullptr, nullptr, 0); }, returns(0)},
      {"createSnapReplicaNode", "nulls",
       [] { return qzvmfi_fi_pgn_createSnapReplicaNode(nullptr, nullptr); }, returns(0)},
      {"set_restorepaths", "nulls",
       [] { return qzvmfi_fi_pgn_set_restorepaths(nullptr, nullptr, 0); }, returns(0)},
      {"set_comp_status", "nulls",
       [] { return qzvmfi_fi_pgn_set_comp_status(nullptr, 0, nullptr, 0); }, returns(0)},
      {"set_op_status", "null node", [] { return qzvmfi_fi_pgn_set_op_status(nullptr, 0); },
       returns(0)},
      {"get_app_status", "nulls", [] { return qzvmfi_fi_pgn_get_app_status(nullptr, 0, nullptr); },
       returns(0)},
      {"get_backupset", "nulls",
       [] { return qzvmfi_fi_pgn_get_backupset(nullptr, 0, nullptr, 0, nullptr); }, returns(0)},
      {"refresh_tree", "nulls",
       [] { return qzvmfi_fi_pgn_refresh_tree(nullptr, 0, 0, nullptr, 0, nullptr, nullptr, 0); },
       returns(0)},
      {"pre_deport_resource", "nulls",
       [] { return qzvmfi_fi_pgn_pre_deport_resource(nullptr, 0, nullptr); }, returns(0)},
      {"unformat", "null disks", [] { return qzvmfi_fi_pgn_unformat(nullptr, 0, 0); }, returns(3)},
      {"is_parent_pgn", "nulls", [] { return qzvmfi_fi_pgn_is_parent_pgn(nullptr, nullptr, 0); },
       returns(3)},
      {"deport_resource", "nulls",
       [] { return qzvmfi_fi_pgn_deport_resource(nullptr, nullptr, nullptr, nullptr, 0); },
       returns(0)},
      {"online_resource", "nulls",
       [] {
         return qzvmfi_fi_pgn_online_resource(nullptr, 0, nullptr, nullptr, nullptr, nullptr, 0,
                                              nullptr, nullptr);
       },
       returns(3)},
      {"enumerate_host_nodes", "nulls",
       [] { return qzvmfi_fi_pgn_enumerate_host_nodes(nullptr, nullptr, nullptr); }, returns(0)},
      {"format", "nulls",
       [] {
         return qzvmfi_fi_pgn_format(nullptr, 0, nullptr, nullptr, nullptr, 0, nullptr, nullptr);
       },
       returns(3)},
      {"import_resource", "nulls",
       [] {
         return qzvmfi_fi_pgn_import_resource(nullptr, nullptr, nullptr, nullptr, 0, nullptr,
                                              nullptr);
       },
       returns(0)},
      {"enumerate_enclosures", "nulls",
       [] { return qzvmfi_fi_pgn_enumerate_enclosures(nullptr, nullptr, nullptr); }, returns(0)},
      {"translate_resource_names", "null arrays and a count",
       [] { return qzvmfi_fi_pgn_translate_resource_names(nullptr, 2, nullptr); }, returns(3)},
      {"start_build_alttree", "nulls",
       [] { return qzvmfi_fi_pgn_start_build_alttree(nullptr, nullptr, nullptr); }, returns(0)},
      {"revisit_pgn_nodes", "null list", [] { return qzvmfi_fi_pgn_revisit_pgn_nodes(nullptr); },
       returns(0)},
      {"res_status", "nulls", [] { return qzvmfi_fi_pgn_res_status(nullptr, 0, nullptr, nullptr); },
       returns(0)},
      {"query_valid_secondaries", "nulls",
       [] { return qzvmfi_fi_pgn_query_valid_secondaries(nullptr, nullptr, nullptr); }, returns(0)},
      {"get_status", "nulls",
       [] { return qzvmfi_fi_pgn_get_status(nullptr, nullptr, 0, nullptr, 0, nullptr); },
       returns(0)},
      {"resync", "nulls",
       [] { return qzvmfi_fi_pgn_resync(nullptr, nullptr, 0, nullptr, nullptr, 0, nullptr); },
       returns(0)},
      {"restore", "nulls",
       [] {
         return qzvmfi_fi_pgn_restore(nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr, 0,
                                      nullptr);
       },
       returns(0)},
      {"disable_access", "null list", [] { return qzvmfi_fi_pgn_disable_access(nullptr, 0); },
       returns(0)},
      {"enable_access", "null list", [] { return qzvmfi_fi_pgn_enable_access(nullptr, 0, 0, 0); },
       returns(0)},
      {"del_locale_message", "null text", [] { return qzvmfi_fi_pgn_del_locale_message(nullptr); },
       returns(3)},
      {"get_locale_message", "nulls",
       [] { return qzvmfi_fi_pgn_get_locale_message(nullptr, nullptr, nullptr, nullptr); },
       returns(3)},
      {"del_last_error", "null list", [] { return qzvmfi_fi_pgn_del_last_error(nullptr); },
       returns(3)},
      {"get_last_error", "null list", [] { return qzvmfi_fi_pgn_get_last_error(nullptr); },
       returns(3)},
      {"check_node_existence", "nulls",
       [] { return qzvmfi_fi_pgn_check_node_existence(nullptr, nullptr); }, returns(3)},
      {"get_associated_nodes", "nulls",
       [] { return qzvmfi_fi_pgn_get_associated_nodes(nullptr, nullptr); }, returns(0)},
      {"isvalid_node_association", "nulls",
       [] { return qzvmfi_fi_pgn_isvalid_node_association(nullptr, nullptr); }, returns(0)},
      {"enumerate_associations", "null list",
       [] { return qzvmfi_fi_pgn_enumerate_associations(nullptr); }, returns(0)},
      {"enumerate_fims", "null list", [] { return qzvmfi_fi_pgn_enumerate_fims(nullptr); },
       returns(0)},
      {"enumerate_group_nodes", "null list",
       [] { return qzvmfi_fi_pgn_enumerate_group_nodes(nullptr); }, returns(0)},
      {"enumerate_nodes", "null list",
       [] { return qzvmfi_fi_pgn_enumerate_nodes(nullptr, nullptr, 0, nullptr); }, returns(3)},
      {"get_provider_info", "null list", [] { return qzvmfi_fi_pgn_get_provider_info(nullptr); },
       returns(3)},
      {"process_providerstate", "nulls",
       [] { return qzvmfi_fi_pgn_process_providerstate(nullptr, nullptr, QFI_PS_SAVE); },
       returns(3)},
      {"getattr", "nulls", [] { return qzvmfi_fi_pgn_getattr(nullptr, nullptr, nullptr, nullptr); },
       returns(0)},
      {"interpose", "nulls",
       [] { return qzvmfi_fi_pgn_interpose(nullptr, nullptr, nullptr, nullptr); }, returns(0)},
      {"cache_enable", "null node", [] { return qzvmfi_fi_pgn_cache_enable(nullptr, 0); },
       returns(0)},
      {"cache_disable", "null node", [] { return qzvmfi_fi_pgn_cache_disable(nullptr, 0); },
       returns(0)},
      {"build_alttree", "nulls",
       [] { return qzvmfi_fi_pgn_build_alttree(nullptr, nullptr, nullptr, nullptr, 0, nullptr); },
       returns(3)},
      {"subobj_list", "nulls", [] { return qzvmfi_fi_pgn_subobj_list(nullptr, nullptr, nullptr); },
       returns(3)},
      {"online", "null nodes",
       [] { return qzvmfi_fi_pgn_online(nullptr, nullptr, 1, QFI_DISP_NONE); }, returns(3)},
      {"dispose", "nulls",
       [] { return qzvmfi_fi_pgn_dispose(nullptr, nullptr, nullptr, QFI_DISP_NONE); }, returns(0)},
      {"deinit_node", "null node", [] { return qzvmfi_fi_pgn_deinit_node(nullptr); }, returns(3)},
      {"config", "nulls", [] { return qzvmfi_fi_pgn_config(nullptr, 0, nullptr, nullptr); },
       returns(3)},
      {"reaccess_altnode", "nulls",
       [] {
         return qzvmfi_fi_pgn_reaccess_altnode(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                               0, QFI_INTENT_NONE);
       },
       returns(0)},
      {"reaccess_tmpobj", "nulls",
       [] {
         return qzvmfi_fi_pgn_reaccess_tmpobj(nullptr, nullptr, nullptr, nullptr, nullptr,
                                              QFI_INTENT_NONE);
       },
       returns(0)},
      {"pre_prepare", "null node", [] { return qzvmfi_fi_pgn_pre_prepare(nullptr); }, returns(0)},
      {"import_tree", "nulls",
       [] { return qzvmfi_fi_pgn_import_tree(nullptr, nullptr, nullptr, 0, nullptr); }, returns(3)},
      {"deport_tree", "nulls", [] { return qzvmfi_fi_pgn_deport_tree(nullptr, nullptr, nullptr); },
       returns(3)},
      {"init_remnode", "nulls",
       [] { return qzvmfi_fi_pgn_init_remnode(nullptr, nullptr, nullptr, false); }, returns(3)},
      {"init_altnode", "nulls",
       [] { return qzvmfi_fi_pgn_init_altnode(nullptr, nullptr, nullptr, false); }, returns(3)},
      {"init_node", "nulls", [] { return qzvmfi_fi_pgn_init_node(nullptr, nullptr, 0, nullptr); },
       returns(3)},
      {"supports_fitype", "nulls", [] { return qzvmfi_fi_pgn_supports_fitype(nullptr, nullptr); },
       returns(0)},
      {"claim", "nulls", [] { return qzvmfi_fi_pgn_claim(nullptr, nullptr, nullptr); }, returns(0)},
      {"errmsg", "null text", [] { return qzvmfi_fi_pgn_errmsg(3, nullptr); }, returns(3)},
      {"preselect", "no node", [] { return qzvmfi_fi_pgn_preselect(nullptr, nullptr, nullptr, 0); },
       returns(0)},
      {"set_import_options", "no node",
       [] { return qzvmfi_fi_pgn_set_import_options(nullptr, nullptr, 0, nullptr, 0, nullptr); },
       returns(0)},
      {"verify_qscombos", "no node",
       [] { return qzvmfi_fi_pgn_verify_qscombos(nullptr, nullptr, 0); }, returns(0)},
      {"isready", "no node", [] { return qzvmfi_fi_pgn_isready(nullptr, nullptr, nullptr, 0); },
       returns(0)},
      {"select", "no node", [] { return qzvmfi_fi_pgn_select(nullptr, nullptr, nullptr, 0); },
       returns(0)},
      {"prepare", "no node", [] { return qzvmfi_fi_pgn_prepare(nullptr, nullptr, nullptr, 0, 0); },
       returns(0)},
      {"unquiesce", "no node",
       [] {
         qzvmfi_fi_pgn_unquiesce(nullptr, nullptr, 0);
         return 0;
       },
       returns(0)},
      {"quiesce", "no node", [] { return qzvmfi_fi_pgn_quiesce(nullptr, nullptr, 0, nullptr); },
       returns(0)},
      {"objctl", "nulls", [] { return qzvmfi_fi_pgn_objctl(nullptr, nullptr, nullptr, nullptr); },
       returns(0)},
      {"fini", "nothing",
       [] {
         qzvmfi_fi_pgn_fini();
         return 0;
       },
       returns(0)},
      {"init", "null version", [] { return qzvmfi_fi_pgn_init(nullptr, nullptr, nullptr); },
       returns(7)},
      {"make", "no node",
       [] { return qzvmfi_fi_pgn_make(nullptr, nullptr, nullptr, 0, nullptr, nullptr); },
       returns(0)},
  };
  (void)g;
  check(cases);
  EXPECT_EQ(77u, m_checked);
}

TEST_F(BadArgumentsTest, EveryEntryPointWithGarbage) {
  static Garbage g;
  qzfi_objid** ids = g.ids;
  char** texts = g.texts;
  char* hostile = kHostileText;
  const std::vector<Case> cases = {
      {"post_deport", "garbage nodes",
       [] { return qzvmfi_fi_pgn_post_deport(&g.domain, &g.domain); }, returns(0)},
      {"get_snapdiff", "garbage",
       [] { return qzvmfi_fi_pgn_get_snapdiff(&g.domain, &g.element, &g.element, &g.trie); },
       returns(0)},
      {"getSnapshotSetId", "garbage node",
       [] { return qzvmfi_fi_pgn_getSnapshotSetId(&g.domain, &g.text); }, returns(0)},
      {"update_snapshot_handle", "garbage element",
       [] { return qzvmfi_fi_pgn_update_snapshot_handle(&g.element); }, returns(0)},
      {"update_snapshot_id", "garbage",
       [] { return qzvmfi_fi_pgn_update_snapshot_id(&g.domain, &g.domain, &g.element, -1); },
       returns(0)},
      {"createSnapReplicaNode", "garbage",
       [] { return qzvmfi_fi_pgn_createSnapReplicaNode(&g.domain, &g.element); }, returns(0)},
      {"set_restorepaths", "garbage and a negative count",
       [hostile] { return qzvmfi_fi_pgn_set_restorepaths(&g.domain, hostile, -1); }, returns(0)},
      {"set_comp_status", "garbage",
       [hostile] { return qzvmfi_fi_pgn_set_comp_status(&g.domain, INT_MIN, hostile, INT_MAX); },
       returns(0)},
      {"set_op_status", "garbage", [] { return qzvmfi_fi_pgn_set_op_status(&g.domain, -1); },
       returns(0)},
      {"get_app_status", "garbage",
       [] { return qzvmfi_fi_pgn_get_app_status(&g.domain, -1, &g.blob); }, returns(0)},
      {"get_backupset", "garbage",
       [texts] { return qzvmfi_fi_pgn_get_backupset(&g.domain, -1, texts, -1, &g.set); },
       returns(0)},
      {"refresh_tree", "garbage",
       [] {
         return qzvmfi_fi_pgn_refresh_tree(&g.domain, -1, -1, &g.resource, -1, &g.count, &g.blob,
                                           -1);
       },
       returns(0)},
      {"pre_deport_resource", "hostile texts",
       [hostile] { return qzvmfi_fi_pgn_pre_deport_resource(hostile, -1, kLongText); }, returns(0)},
      {"unformat", "hostile disks and a negative count",
       [texts] { return qzvmfi_fi_pgn_unformat(texts, -1, -1); }, returns(3)},
      {"is_parent_pgn", "hostile disk",
       [hostile] { return qzvmfi_fi_pgn_is_parent_pgn(hostile, &g.count, -1); }, returns(0)},
      {"deport_resource", "hostile texts",
       [hostile] {
         return qzvmfi_fi_pgn_deport_resource(hostile, hostile, kLongText, kLongText, -1);
       },
       returns(0)},
      {"online_resource", "hostile disks and a negative count",
       [texts, hostile] {
         return qzvmfi_fi_pgn_online_resource(texts, -1, hostile, hostile, hostile, hostile, -1,
                                              &g.paths, &g.count);
       },
       returns(3)},
      {"enumerate_host_nodes", "hostile text",
       [hostile] { return qzvmfi_fi_pgn_enumerate_host_nodes(nullptr, &g.count, hostile); },
       returns(0)},
      {"format", "hostile disks, name and options",
       [texts, hostile] {
         return qzvmfi_fi_pgn_format(texts, 2, hostile, hostile, kLongText, -1, &g.paths, &g.count);
       },
       returns(3)},
      {"import_resource", "hostile names",
       [texts, hostile] {
         return qzvmfi_fi_pgn_import_resource(texts, hostile, hostile, hostile, -1, &g.text,
                                              hostile);
       },
       returns(0)},
      {"enumerate_enclosures", "hostile text",
       [hostile] { return qzvmfi_fi_pgn_enumerate_enclosures(nullptr, &g.count, hostile); },
       returns(0)},
      {"translate_resource_names", "a negative count",
       [texts] { return qzvmfi_fi_pgn_translate_resource_names(texts, -1, texts); }, returns(3)},
      {"start_build_alttree", "garbage",
       [ids] { return qzvmfi_fi_pgn_start_build_alttree(&g.domain, ids, &g.blob); }, returns(0)},
      {"revisit_pgn_nodes", "garbage list",
       [] { return qzvmfi_fi_pgn_revisit_pgn_nodes(&g.pgnList); }, returns(0)},
      {"res_status", "garbage id",
       [] { return qzvmfi_fi_pgn_res_status(&g.objid, -1, &g.number, nullptr); }, returns(0)},
      {"query_valid_secondaries", "hostile text",
       [hostile] { return qzvmfi_fi_pgn_query_valid_secondaries(hostile, &g.idList, &g.number); },
       returns(0)},
      {"get_status", "garbage ids and a negative count",
       [ids, hostile] { return qzvmfi_fi_pgn_get_status(ids, ids, -1, hostile, -1, &g.number); },
       returns(0)},
      {"resync", "garbage ids and a negative count",
       [ids, hostile] {
         return qzvmfi_fi_pgn_resync(ids, ids, -1, hostile, hostile, -1, &g.number);
       },
       returns(0)},
      {"restore", "garbage ids and a negative count",
       [ids, hostile] {
         return qzvmfi_fi_pgn_restore(ids, ids, -1, hostile, hostile, nullptr, &g.number, -1,
                                      &g.number);
       },
       returns(0)},
      {"disable_access", "garbage list",
       [] { return qzvmfi_fi_pgn_disable_access(&g.subobjs, -1); }, returns(3)},
      {"enable_access", "garbage list",
       [] { return qzvmfi_fi_pgn_enable_access(&g.subobjs, -1, -1, 0); }, returns(3)},
      {"del_locale_message", "hostile text",
       [] {
         char* text = strdup(kHostileText);
         return qzvmfi_fi_pgn_del_locale_message(&text);
       },
       returns(0)},
      {"get_locale_message", "garbage message",
       [hostile] {
         int code = -1;
         return qzvmfi_fi_pgn_get_locale_message(&code, &g.message, hostile, &g.text);
       },
       returns(0)},
      {"del_last_error", "an empty list",
       [] {
         qfi_msg_info* none = nullptr;
         return qzvmfi_fi_pgn_del_last_error(&none);
       },
       returns(0)},
      {"get_last_error", "a list to fill",
       [] {
         qfi_msg_info* list = nullptr;
         return qzvmfi_fi_pgn_get_last_error(&list);
       },
       returns(0)},
      {"check_node_existence", "garbage node",
       [] { return qzvmfi_fi_pgn_check_node_existence(&g.domain, &g.count); }, returns(3)},
      {"get_associated_nodes", "garbage node",
       [] {
         qfi_node_list* list = nullptr;
         return qzvmfi_fi_pgn_get_associated_nodes(&g.node, &list);
       },
       returns(0)},
      {"isvalid_node_association", "garbage association",
       [] { return qzvmfi_fi_pgn_isvalid_node_association(&g.assoc, &g.count); }, returns(0)},
      {"enumerate_associations", "a list to fill",
       [] {
         qfi_assoc_list* list = nullptr;
         return qzvmfi_fi_pgn_enumerate_associations(&list);
       },
       returns(0)},
      {"enumerate_fims", "a list to fill",
       [] {
         qfi_fim_list* list = nullptr;
         return qzvmfi_fi_pgn_enumerate_fims(&list);
       },
       returns(0)},
      {"enumerate_group_nodes", "a list to fill",
       [] {
         qfi_group_node_list* list = nullptr;
         return qzvmfi_fi_pgn_enumerate_group_nodes(&list);
       },
       returns(0)},
      {"enumerate_nodes", "a null count and hostile text",
       [hostile] {
         qfi_node_list* list = nullptr;
         return qzvmfi_fi_pgn_enumerate_nodes(&list, nullptr, -1, hostile);
       },
       returns(0)},
      {"get_provider_info", "a list to fill",
       [] {
         qfi_provider_list* list = nullptr;
         return qzvmfi_fi_pgn_get_provider_info(&list);
       },
       returns(0)},
      {"process_providerstate", "a garbage blob to restore",
       [] { return qzvmfi_fi_pgn_process_providerstate(&g.domain, &g.blob, QFI_PS_RESTORE); },
       returns(0)},
      {"process_providerstate", "an operation that does not exist",
       [] {
         return qzvmfi_fi_pgn_process_providerstate(&g.domain, &g.blob,
                                                    static_cast<qfi_op_providerstate>(77));
       },
       returns(3)},
      {"getattr", "garbage",
       [] { return qzvmfi_fi_pgn_getattr(&g.domain, &g.domain, &g.split, nullptr); }, returns(0)},
      {"interpose", "garbage",
       [ids] { return qzvmfi_fi_pgn_interpose(&g.domain, ids, &g.idList, &g.count); }, returns(0)},
      {"cache_enable", "garbage", [] { return qzvmfi_fi_pgn_cache_enable(&g.domain, -1); },
       returns(0)},
      {"cache_disable", "garbage", [] { return qzvmfi_fi_pgn_cache_disable(&g.domain, -1); },
       returns(0)},
      {"build_alttree", "garbage and a negative count",
       [ids, hostile] {
         return qzvmfi_fi_pgn_build_alttree(&g.domain, hostile, ids, ids, -1, &g.id);
       },
       returns(3)},
      {"subobj_list", "garbage node",
       [] { return qzvmfi_fi_pgn_subobj_list(&g.domain, &g.idList, &g.count); }, returns(0)},
      {"online", "garbage nodes and disposition",
       [] {
         return qzvmfi_fi_pgn_online(&g.domain, &g.domain, -1, static_cast<qfi_disposition>(99));
       },
       returns(3)},
      {"dispose", "garbage target and disposition",
       [] {
         return qzvmfi_fi_pgn_dispose(&g.domain, &g.domain, &g.split,
                                      static_cast<qfi_disposition>(99));
       },
       returns(3)},
      {"deinit_node", "garbage node", [] { return qzvmfi_fi_pgn_deinit_node(&g.domain); },
       returns(0)},
      {"config", "garbage",
       [hostile] { return qzvmfi_fi_pgn_config(&g.domain, -1, hostile, &g.confspec); }, returns(0)},
      {"reaccess_altnode", "garbage and a negative count",
       [ids, hostile] {
         return qzvmfi_fi_pgn_reaccess_altnode(&g.domain, &g.objid, &g.objid, hostile, ids, ids, -1,
                                               static_cast<qfi_intent>(99));
       },
       returns(0)},
      {"reaccess_tmpobj", "garbage",
       [hostile] {
         return qzvmfi_fi_pgn_reaccess_tmpobj(&g.domain, &g.objid, hostile, &g.domain, hostile,
                                              static_cast<qfi_intent>(99));
       },
       returns(0)},
      {"pre_prepare", "garbage node", [] { return qzvmfi_fi_pgn_pre_prepare(&g.domain); },
       returns(0)},
      {"import_tree", "garbage and a negative count",
       [ids] { return qzvmfi_fi_pgn_import_tree(&g.domain, ids, ids, -1, &g.id); }, returns(3)},
      {"deport_tree", "garbage",
       [] { return qzvmfi_fi_pgn_deport_tree(&g.domain, &g.domain, &g.accessNode); }, returns(3)},
      {"init_remnode", "garbage",
       [] { return qzvmfi_fi_pgn_init_remnode(&g.domain, &g.domain, &g.domain, true); },
       returns(3)},
      {"init_altnode", "garbage",
       [] { return qzvmfi_fi_pgn_init_altnode(&g.domain, &g.domain, &g.domain, true); },
       returns(6)},
      {"init_node", "garbage and a negative count",
       [] {
         qfi_domain* parents[] = {&g.domain, nullptr};
         return qzvmfi_fi_pgn_init_node(&g.domain, parents, -1, &g.objid);
       },
       returns(3)},
      {"supports_fitype", "garbage",
       [hostile] { return qzvmfi_fi_pgn_supports_fitype(&g.domain, hostile); }, returns(0)},
      {"claim", "a hostile object",
       [] { return qzvmfi_fi_pgn_claim(&g.objid, &g.idList, &g.count); }, returns(0)},
      {"errmsg", "a code that does not exist",
       [] { return qzvmfi_fi_pgn_errmsg(INT_MIN, &g.constText); }, returns(0)},
      {"preselect", "a node array missing for its count",
       [hostile] { return qzvmfi_fi_pgn_preselect(&g.split, hostile, nullptr, 2); },
       stops("node array missing for 2 nodes")},
      {"set_import_options", "a node array missing for its count",
       [] { return qzvmfi_fi_pgn_set_import_options(&g.split, nullptr, -1, &g.host, -1, &g.blob); },
       stops("node array missing for -1 nodes")},
      {"verify_qscombos", "garbage nodes and a negative count",
       [] { return qzvmfi_fi_pgn_verify_qscombos(&g.split, g.splits, -1); }, returns(0)},
      {"isready", "garbage nodes",
       [hostile] { return qzvmfi_fi_pgn_isready(hostile, &g.split, g.splits, 1); }, returns(0)},
      {"select", "garbage nodes",
       [hostile] { return qzvmfi_fi_pgn_select(hostile, &g.split, g.splits, 1); }, returns(0)},
      {"prepare", "a node array missing for its count",
       [hostile] { return qzvmfi_fi_pgn_prepare(hostile, &g.split, nullptr, INT_MAX, -1); },
       stops("node array missing for 2147483647 nodes")},
      {"unquiesce", "garbage nodes",
       [] {
         qzvmfi_fi_pgn_unquiesce(&g.quiesce, g.quiesces, 1);
         return 0;
       },
       returns(0)},
      {"quiesce", "a node array missing for its count",
       [hostile] { return qzvmfi_fi_pgn_quiesce(&g.quiesce, nullptr, 2, hostile); },
       stops("node array missing for 2 nodes")},
      {"objctl", "a malformed argument text",
       [hostile] {
         const int32_t status = qzvmfi_fi_pgn_objctl(hostile, hostile, &g.text, &g.result);
         return status == 0 && g.text != nullptr &&
                        std::string(g.text) == "<OBJCTL_ARG_LIST> </OBJCTL_ARG_LIST> "
                    ? static_cast<int32_t>(g.result)
                    : -1;
       },
       returns(3)},
      {"fini", "twice",
       [] {
         qzvmfi_fi_pgn_fini();
         qzvmfi_fi_pgn_fini();
         return 0;
       },
       returns(0)},
      {"init", "a garbage start-up record",
       [] {
         qfi_version version{};
         return qzvmfi_fi_pgn_init(&g.startup, &version, kHostileText);
       },
       returns(0)},
      {"make", "garbage nodes",
       [hostile] {
         return qzvmfi_fi_pgn_make(hostile, &g.split, g.splits, 1, &g.idList, &g.count);
       },
       returns(0)},
  };
  check(cases);
  EXPECT_EQ(78u, m_checked);
}

}  // namespace
