// The plug-in base class: slot dispatch, base behaviours and services.
#include <gtest/gtest.h>
#include <qzfi/pluginbase.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using namespace qzfi_pdk_4_4;

namespace {

// A plug-in that implements two operations and keeps the base for the rest.
class ClaimingPlugin : public CFiPluginBase {
 public:
  int claim(qzfi_objid*, qzfi_objid***, int* count) override {
    *count = 1;
    return QFI_CLAIMED;
  }
  int postDeport(qfi_domain*, qfi_domain*) override {
    ++postDeports;
    return 17;
  }
  int postDeports = 0;
};

class TestData : public CFiPrivateData {
 public:
  TestData(qzfi_objid* id, bool alternate) : CFiPrivateData(id, alternate) {}
};

qzfi_objid* newId(const char* name) {
  return qzfi_get_objid(name, static_cast<int>(std::strlen(name) + 1), QZFI_OBJID_SUBOBJ);
}

TEST(PluginBase, DerivedOperationsAreReachedThroughTheBase) {
  ClaimingPlugin plugin;
  CFiPluginBase* base = &plugin;
  qzfi_objid** subobjs = nullptr;
  int count = 0;
  EXPECT_EQ(QFI_CLAIMED, base->claim(nullptr, &subobjs, &count));
  EXPECT_EQ(1, count);
  EXPECT_EQ(17, base->postDeport(nullptr, nullptr));
  EXPECT_EQ(1, plugin.postDeports);
  EXPECT_EQ(0, base->deportTree(nullptr, nullptr, nullptr));
}

TEST(PluginBase, BaseOperationsDoNothingAndEmptyTheirOutputs) {
  CFiPluginBase base;
  std::string name = "/dev/sda";
  qzfi_objid id{name.data(), QZFI_OBJID_SUBOBJ, 9};
  qzfi_objid** subobjs = reinterpret_cast<qzfi_objid**>(&base);
  int count = 5;
  EXPECT_EQ(0, base.claim(&id, &subobjs, &count));
  EXPECT_EQ(nullptr, subobjs);
  EXPECT_EQ(0, count);

  int flag = 1;
  EXPECT_EQ(0, base.checkNodeExistence(nullptr, &flag));
  EXPECT_EQ(0, flag);
  char** paths = reinterpret_cast<char**>(&base);
  count = 3;
  EXPECT_EQ(0, base.format(nullptr, 0, nullptr, nullptr, nullptr, 0, &paths, &count));
  EXPECT_EQ(nullptr, paths);
  EXPECT_EQ(0, count);
  qfi_attributes attributes{12, 1, 1};
  EXPECT_EQ(0, base.getAttr(nullptr, nullptr, nullptr, &attributes));
  EXPECT_EQ(0, attributes.size);
  EXPECT_EQ(0, base.make(nullptr, nullptr, 0, nullptr, nullptr));
  EXPECT_EQ(0, base.prepare(nullptr, nullptr, 0, 0));
  EXPECT_EQ(0, base.selectSnapshots(CFiSessionPtr()));
  CFiObjctlArgs args;
  EXPECT_EQ(0, base.objctl(ACE_TString("status"), args));
}

TEST(PluginBase, ErrMsgNamesTheStatus) {
  CFiPluginBase base;
  const char* text = nullptr;
  EXPECT_EQ(0, base.errMsg(QFI_E_INIT, &text));
  EXPECT_STREQ("Initialisation failed", text);
  EXPECT_EQ(0, base.errMsg(4242, &text));
  EXPECT_STREQ("Unknown status", text);
  EXPECT_EQ(3, base.errMsg(0, nullptr));
}

TEST(PluginBase, ShuttingDownOnceSetStaysSet) {
  EXPECT_FALSE(CFiPluginBase::isShuttingDown());
  EXPECT_TRUE(CFiPluginBase::isShuttingDown(true));
  EXPECT_TRUE(CFiPluginBase::isShuttingDown());
}

TEST(PluginBase, SetOwnerIdsChangesTheOwnerOfAFile) {
  std::string path = std::string(testing::TempDir()) + "qzfi_owner_XXXXXX";
  int fd = mkstemp(path.data());
  ASSERT_GE(fd, 0);
  close(fd);

  // Only root can give a file away; anyone else can only keep its own ids.
  bool root = geteuid() == 0;
  uid_t uid = root ? 4321 : getuid();
  gid_t gid = root ? 4322 : getgid();
  CFiPluginBase base;
  EXPECT_EQ(0, base.setOwnerIds(path.c_str(), uid, gid));
  struct stat info {};
  ASSERT_EQ(0, stat(path.c_str(), &info));
  EXPECT_EQ(uid, info.st_uid);
  EXPECT_EQ(gid, info.st_gid);
  unlink(path.c_str());

  EXPECT_EQ(ENOENT, base.setOwnerIds(path.c_str(), uid, gid));
  EXPECT_EQ(EINVAL, base.setOwnerIds(nullptr, 0, 0));
}

TEST(PluginBase, SubObjectsAreHandedOutAsCopies) {
  CFiPluginBase base;
  qfi_domain node{};
  qfi_domain other{};
  base.addSubObject(&node, newId("/dev/sdb"));
  base.addSubObject(&node, newId("/dev/sdc"));
  base.addSubObject(&other, newId("/dev/sdd"));
  base.addSubObject(nullptr, newId("/dev/sde"));
  ASSERT_EQ(2u, base.getSubObjects(&node).size());

  qzfi_objid** list = nullptr;
  int count = 0;
  ASSERT_EQ(0, base.subobjList(&node, &list, &count));
  ASSERT_EQ(2, count);
  EXPECT_STREQ("/dev/sdb", list[0]->name);
  EXPECT_STREQ("/dev/sdc", list[1]->name);
  EXPECT_EQ(QZFI_OBJID_SUBOBJ, list[1]->kind);
  EXPECT_NE(base.getSubObjects(&node)[0], list[0]);
  for (int i = 0; i < count; ++i) {
    qzfi_free_objid(list[i]);
  }
  qzfi_free_buf(list, count * sizeof(qzfi_objid*));

  base.clearSubObjects(&node);
  EXPECT_TRUE(base.getSubObjects(&node).empty());
  ASSERT_EQ(0, base.subobjList(&node, &list, &count));
  EXPECT_EQ(0, count);
  EXPECT_EQ(nullptr, list);
  EXPECT_EQ(3, base.subobjList(&node, nullptr, &count));
}

TEST(PluginBase, DeInitNodeDropsPrivateDataAndSubObjects) {
  CFiPluginBase base;
  CFiPrivateDataManagerPtr manager(new CFiPrivateDataManager());
  manager->registerFactory(CFiPrivateDataFactoryPtr(new CFiPrivateDataConcreteFactory<TestData>()));
  base.registerPrivateDataManager(manager);
  CFiTraceLogPtr log(new CFiTraceLog());
  log->setLevel(QZFI_TRACE_DETAIL);
  std::vector<std::string> lines;
  log->setSink([&lines](int, const std::string& text) { lines.push_back(text); });
  base.registerTraceLog(log);

  qfi_domain node{};
  ASSERT_NE(nullptr, manager->create(&node, 0));
  base.addSubObject(&node, newId("/dev/sdb"));

  EXPECT_EQ(0, base.deInitNode(&node));
  EXPECT_EQ(nullptr, manager->find(&node));
  EXPECT_EQ(nullptr, node.pvt);
  EXPECT_TRUE(base.getSubObjects(&node).empty());
  EXPECT_EQ(3, base.deInitNode(nullptr));
  ASSERT_FALSE(lines.empty());
  EXPECT_NE(std::string::npos, lines.front().find("Entering Function deInitNode"));
}

class PluginErrorsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("QZFI_CATALOG_DIR", QZ_CATALOG_DIR, 1);
    catalog = CFiMessageCatalogManagerPtr(new CFiMessageCatalogManager());
    catalog->registerFactory(
        CFiMessageCatalogFactoryPtr(new CFiMessageCatalogFactory("root", "qzfitest")));
    errors = CFiErrorManagerPtr(new CFiErrorManager());
    errors->registerHandler(CFiErrorHandlerPtr(new CFiErrorHandler(nullptr, "", catalog)));
    // The offset is set before the catalogue is registered, as a plug-in's
    // init does.
    plugin.setMessageIndexOffset(6000);
    plugin.registerCatalogManager(catalog);
    plugin.registerErrorManager(errors);
  }
  void TearDown() override { unsetenv("QZFI_CATALOG_DIR"); }

  // The catalogue text of a framework record with these argument texts.
  std::string localeText(const char* id, std::vector<std::string> texts) {
    std::vector<char*> args;
    for (std::string& text : texts) {
      args.push_back(&text[0]);
    }
    qfi_msg_info info{};
    info.id = const_cast<char*>(id);
    info.nargs = static_cast<int32_t>(args.size());
    info.args = args.data();
    char* text = nullptr;
    EXPECT_EQ(0, plugin.getLocaleMessage(nullptr, &info, "en", &text));
    const std::string resolved = text != nullptr ? text : "";
    plugin.delLocaleMessage(&text);
    return resolved;
  }

  CFiMessageCatalogManagerPtr catalog;
  CFiErrorManagerPtr errors;
  CFiPluginBase plugin;
};

TEST_F(PluginErrorsTest, LastErrorComesFromTheErrorManager) {
  icu::Formattable args[] = {icu::Formattable("copy"), icu::Formattable("/a"),
                             icu::Formattable("/b")};
  errors->pushError(CFiIcuMessagePtr(new CFiIcuMessage("MSG_TEST_COPY", args, 3, 3, "src", 5)));

  qfi_msg_info* list = nullptr;
  ASSERT_EQ(0, plugin.getLastError(&list));
  ASSERT_NE(nullptr, list);
  EXPECT_EQ(6001, list->msgid);
  EXPECT_STREQ("copy: could not copy /a to /b.", list->text);
  EXPECT_EQ(0, plugin.delLastError(&list));
  EXPECT_EQ(nullptr, list);
  EXPECT_EQ(3, plugin.getLastError(nullptr));
}

TEST_F(PluginErrorsTest, LocaleMessageIsTheCatalogueText) {
  char id[] = "MSG_TEST_COUNT";
  char first[] = "scan";
  char second[] = "3";
  char* args[] = {first, second};
  qfi_msg_info info{};
  info.id = id;
  info.nargs = 2;
  info.args = args;

  int code = 0;
  char* text = nullptr;
  ASSERT_EQ(0, plugin.getLocaleMessage(&code, &info, "en", &text));
  EXPECT_STREQ("scan found 3 disks.", text);
  EXPECT_EQ(6002, code);
  EXPECT_EQ(0, plugin.delLocaleMessage(&text));
  EXPECT_EQ(nullptr, text);
  EXPECT_EQ(3, plugin.getLocaleMessage(&code, nullptr, "en", &text));
}

TEST_F(PluginErrorsTest, LocaleMessageKeepsTheBytesOfItsArguments) {
  EXPECT_EQ("qzdg: could not copy caf\xe9 \xff to \xc3\xa9t\xc3\xa9 \x80.",
            localeText("MSG_TEST_COPY", {"qzdg", "caf\xe9 \xff", "\xc3\xa9t\xc3\xa9 \x80"}));
}

TEST_F(PluginErrorsTest, LocaleMessageShowsNumbersFromTheRecordAsPrinted) {
  EXPECT_EQ("scan found 1234567 disks.", localeText("MSG_TEST_COUNT", {"scan", "1234567"}));
}

TEST(PluginBase, WithoutErrorManagerThereIsNoLastError) {
  CFiPluginBase base;
  qfi_msg_info* list = reinterpret_cast<qfi_msg_info*>(&base);
  EXPECT_EQ(0, base.getLastError(&list));
  EXPECT_EQ(nullptr, list);
}

}  // namespace
