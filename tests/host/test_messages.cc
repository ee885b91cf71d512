// Messages, their catalogue and the error stack handed to the framework.
#include <gtest/gtest.h>
#include <qzfi/messages.h>

#include <cstdlib>
#include <string>
#include <vector>

using namespace qzfi_pdk_4_4;

namespace {

const char kProvider[] = "qzfitest";

std::vector<icu::Formattable> texts(const std::vector<std::string>& values) {
  std::vector<icu::Formattable> args;
  for (const std::string& value : values) {
    args.emplace_back(icu::UnicodeString::fromUTF8(value));
  }
  return args;
}

CFiIcuMessagePtr message(const char* id, const std::vector<icu::Formattable>& args,
                         int severity = 3, const char* source = "copier", int line = 42) {
  return CFiIcuMessagePtr(
      new CFiIcuMessage(id, args.data(), static_cast<int>(args.size()), severity, source, line));
}

class MessagesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("QZFI_CATALOG_DIR", QZ_CATALOG_DIR, 1);
    catalog = CFiMessageCatalogManagerPtr(new CFiMessageCatalogManager());
    catalog->setMessageIndexOffset(6000);
    catalog->registerFactory(
        CFiMessageCatalogFactoryPtr(new CFiMessageCatalogFactory("root", kProvider)));
    errors = CFiErrorManagerPtr(new CFiErrorManager());
    errors->registerHandler(
        CFiErrorHandlerPtr(new CFiErrorHandler(nullptr, std::string(), catalog)));
  }
  void TearDown() override { unsetenv("QZFI_CATALOG_DIR"); }

  CFiMessageCatalogManagerPtr catalog;
  CFiErrorManagerPtr errors;
};

TEST_F(MessagesTest, PushedMessageComesBackResolvedFromGetLastError) {
  errors->pushError(message("MSG_TEST_COPY", texts({"copy", "/a", "/b"})));

  qfi_msg_info* list = nullptr;
  ASSERT_EQ(0, errors->getLastError(&list));
  ASSERT_NE(nullptr, list);
  EXPECT_STREQ("MSG_TEST_COPY", list->id);
  EXPECT_STREQ("copy: could not copy /a to /b.", list->text);
  EXPECT_EQ(6001, list->msgid);  // keys sorted: ALPHA, COPY, COUNT
  EXPECT_EQ(3, list->severity);
  EXPECT_STREQ("copier", list->source);
  EXPECT_EQ(42, list->line);
  ASSERT_EQ(3, list->nargs);
  EXPECT_STREQ("copy", list->args[0]);
  EXPECT_STREQ("/b", list->args[2]);
  EXPECT_EQ(nullptr, list->args[3]);
  EXPECT_EQ(nullptr, list->next);
  EXPECT_EQ(0u, errors->count());

  EXPECT_EQ(0, CFiErrorManager::delLastError(&list));
  EXPECT_EQ(nullptr, list);
}

TEST_F(MessagesTest, GetLastErrorListsNewestFirstAndEmptiesTheStack) {
  errors->pushError(message("MSG_TEST_ALPHA", {}));
  std::vector<icu::Formattable> count = texts({"scan"});
  count.emplace_back(static_cast<int32_t>(4));
  errors->pushError(message("MSG_TEST_COUNT", count));
  EXPECT_EQ(2u, errors->errors().size());

  qfi_msg_info* list = nullptr;
  ASSERT_EQ(0, errors->getLastError(&list));
  ASSERT_NE(nullptr, list);
  EXPECT_STREQ("scan found 4 disks.", list->text);
  EXPECT_STREQ("4", list->args[1]);
  ASSERT_NE(nullptr, list->next);
  EXPECT_STREQ("Alpha without arguments.", list->next->text);
  EXPECT_EQ(6000, list->next->msgid);
  EXPECT_EQ(0, list->next->nargs);
  EXPECT_EQ(nullptr, list->next->next);
  EXPECT_TRUE(errors->errors().empty());
  CFiErrorManager::delLastError(&list);

  ASSERT_EQ(0, errors->getLastError(&list));
  EXPECT_EQ(nullptr, list);
}

TEST_F(MessagesTest, UnknownIdentifierFallsBackToIdentifierAndArguments) {
  std::vector<icu::Formattable> args = texts({"a b"});
  args.emplace_back(static_cast<int64_t>(12345678901LL));
  errors->pushError(message("MSG_NOT_IN_CATALOGUE", args));

  qfi_msg_info* list = nullptr;
  ASSERT_EQ(0, errors->getLastError(&list));
  ASSERT_NE(nullptr, list);
  EXPECT_STREQ("MSG_NOT_IN_CATALOGUE [a b] [12345678901]", list->text);
  EXPECT_EQ(-1, list->msgid);
  CFiErrorManager::delLastError(&list);
}

TEST_F(MessagesTest, WithoutHandlerTextsAreTheFallback) {
  CFiErrorManager bare;
  bare.pushError(message("MSG_TEST_ALPHA", texts({"x"})));
  qfi_msg_info* list = nullptr;
  ASSERT_EQ(0, bare.getLastError(&list));
  ASSERT_NE(nullptr, list);
  EXPECT_STREQ("MSG_TEST_ALPHA [x]", list->text);
  CFiErrorManager::delLastError(&list);
}

TEST_F(MessagesTest, NullArgumentsAreRejected) {
  EXPECT_EQ(3, errors->getLastError(nullptr));
  EXPECT_EQ(3, CFiErrorManager::delLastError(nullptr));
  errors->pushError(CFiIcuMessagePtr());
  EXPECT_EQ(0u, errors->count());
}

TEST_F(MessagesTest, ClearDropsPushedMessages) {
  errors->pushError(message("MSG_TEST_ALPHA", {}));
  errors->clear();
  EXPECT_EQ(0u, errors->count());
}

TEST_F(MessagesTest, FactoryFormatsAndIndexesItsBundle) {
  CFiMessageCatalogFactory factory("root", kProvider);
  ASSERT_TRUE(factory.isOpen());
  EXPECT_EQ(0, factory.indexOf("MSG_TEST_ALPHA"));
  EXPECT_EQ(2, factory.indexOf("MSG_TEST_COUNT"));
  EXPECT_EQ(-1, factory.indexOf("MSG_MISSING"));

  std::string text;
  EXPECT_TRUE(factory.format(*message("MSG_TEST_COPY", texts({"copy", "/a"})), "", text));
  EXPECT_EQ("copy: could not copy /a to .", text);
  EXPECT_FALSE(factory.format(*message("MSG_MISSING", {}), "", text));
}

TEST_F(MessagesTest, CatalogueFolderComesFromTheEnvironmentFirst) {
  CFiMessageCatalogFactory fromEnv("root", kProvider, "/nonexistent");
  EXPECT_TRUE(fromEnv.isOpen());

  unsetenv("QZFI_CATALOG_DIR");
  CFiMessageCatalogFactory fromFolder("root", kProvider, QZ_CATALOG_DIR);
  EXPECT_TRUE(fromFolder.isOpen());
  CFiMessageCatalogFactory missing("root", kProvider, "/nonexistent");
  EXPECT_FALSE(missing.isOpen());
  std::string text;
  EXPECT_FALSE(missing.format(*message("MSG_TEST_ALPHA", {}), "", text));
  EXPECT_EQ(-1, missing.indexOf("MSG_TEST_ALPHA"));
}

TEST_F(MessagesTest, WithoutEnvironmentOrFolderTheInstalledCatalogueIsRead) {
  unsetenv("QZFI_CATALOG_DIR");
  CFiMessageCatalogFactory installed("root", kProvider);
  ASSERT_TRUE(installed.isOpen());
  std::string text;
  EXPECT_TRUE(installed.format(*message("MSG_TEST_COPY", texts({"copy", "/a", "/b"})), "", text));
  EXPECT_EQ("copy: could not copy /a to /b.", text);
}

TEST_F(MessagesTest, ManagerAsksEachFactoryInTurn) {
  CFiMessageCatalogManager manager;
  manager.setMessageIndexOffset(100);
  manager.registerFactory(
      CFiMessageCatalogFactoryPtr(new CFiMessageCatalogFactory("root", "absent")));
  manager.registerFactory(
      CFiMessageCatalogFactoryPtr(new CFiMessageCatalogFactory("root", kProvider)));
  manager.setNativeLanguage("en");
  EXPECT_EQ("en", manager.getNativeLanguage());
  EXPECT_EQ("Alpha without arguments.",
            manager.getLocalizedMessage(*message("MSG_TEST_ALPHA", {})));
  EXPECT_EQ(101, manager.getMessageNumber(*message("MSG_TEST_COPY", {})));
}

TEST(IcuMessage, ArgumentTextShowsNumbersInDecimal) {
  icu::Formattable args[] = {icu::Formattable(static_cast<int32_t>(1234567)), icu::Formattable(2.5),
                             icu::Formattable("text")};
  CFiIcuMessage msg("MSG_X", args, 3, 2, "src", 7);
  EXPECT_EQ("1234567", msg.argumentText(0));
  EXPECT_EQ("2.5", msg.argumentText(1));
  EXPECT_EQ("text", msg.argumentText(2));
  EXPECT_EQ("", msg.argumentText(3));
}

TEST(IcuMessage, SerializeThenDeserializeKeepsEveryField) {
  icu::Formattable args[] = {icu::Formattable("pipe | back\\slash\nnext line"),
                             icu::Formattable(static_cast<int32_t>(-7)),
                             icu::Formattable(static_cast<int64_t>(1LL << 40)),
                             icu::Formattable(0.125), icu::Formattable("")};
  CFiIcuMessage original("MSG_ROUND|TRIP", args, 5, 2, "source\nfile", 99);
  std::string text = original.serialize();
  EXPECT_EQ(std::string::npos, text.find('\n'));

  CFiIcuMessage copy;
  ASSERT_TRUE(copy.deserialize(text));
  EXPECT_EQ("MSG_ROUND|TRIP", copy.getIdentifier());
  EXPECT_EQ(2, copy.getSeverity());
  EXPECT_EQ("source\nfile", copy.getSourceFile());
  EXPECT_EQ(99, copy.getLine());
  ASSERT_EQ(5u, copy.getArguments().size());
  EXPECT_TRUE(copy.getArguments() == original.getArguments());
  EXPECT_EQ(icu::Formattable::kInt64, copy.getArguments()[2].getType());
  EXPECT_EQ(text, copy.serialize());
}

// Bytes as a tool may print them: Latin-1, stray continuation bytes, a cut
// sequence, an encoded surrogate, and valid UTF-8 around them.
const std::string kToolBytes =
    "caf\xe9 \x80\xbf \xe2\x82 \xed\xa0\x80 \xc3\xa9t\xc3\xa9 \xf0\x9f\x92\xbe";

TEST_F(MessagesTest, ByteArgumentsComeBackByteForByte) {
  std::vector<icu::Formattable> args = {icu::Formattable(CFiIcuMessage::textOfBytes(kToolBytes)),
                                        icu::Formattable(CFiIcuMessage::textOfBytes("/dev/sdb")),
                                        icu::Formattable(CFiIcuMessage::textOfBytes(kToolBytes))};
  errors->pushError(message("MSG_TEST_COPY", args));
  EXPECT_EQ(kToolBytes, errors->errors()[0]->argumentText(0));

  qfi_msg_info* list = nullptr;
  ASSERT_EQ(0, errors->getLastError(&list));
  ASSERT_NE(nullptr, list);
  EXPECT_EQ(kToolBytes, std::string(list->args[0]));
  EXPECT_EQ(kToolBytes + ": could not copy /dev/sdb to " + kToolBytes + ".",
            std::string(list->text));
  CFiErrorManager::delLastError(&list);
}

TEST_F(MessagesTest, ByteArgumentsWithoutCatalogueComeBackInTheFallback) {
  errors->pushError(
      message("MSG_NOT_IN_CATALOGUE", {icu::Formattable(CFiIcuMessage::textOfBytes(kToolBytes))}));
  qfi_msg_info* list = nullptr;
  ASSERT_EQ(0, errors->getLastError(&list));
  ASSERT_NE(nullptr, list);
  EXPECT_EQ("MSG_NOT_IN_CATALOGUE [" + kToolBytes + "]", std::string(list->text));
  CFiErrorManager::delLastError(&list);
}

TEST_F(MessagesTest, NumbersAtPlainPlacesPrintWithoutGrouping) {
  std::vector<icu::Formattable> count = texts({"scan"});
  count.emplace_back(static_cast<int32_t>(1234567));
  errors->pushError(message("MSG_TEST_COUNT", count));
  std::vector<icu::Formattable> wide = texts({"scan"});
  wide.emplace_back(static_cast<int64_t>(-12345678901LL));
  errors->pushError(message("MSG_TEST_COUNT", wide));

  qfi_msg_info* list = nullptr;
  ASSERT_EQ(0, errors->getLastError(&list));
  ASSERT_NE(nullptr, list);
  EXPECT_STREQ("scan found -12345678901 disks.", list->text);
  EXPECT_STREQ("-12345678901", list->args[1]);
  ASSERT_NE(nullptr, list->next);
  EXPECT_STREQ("scan found 1234567 disks.", list->next->text);
  CFiErrorManager::delLastError(&list);
}

TEST_F(MessagesTest, NumbersAtTypedPlacesFollowTheirPattern) {
  std::vector<icu::Formattable> size = texts({"disk"});
  size.emplace_back(static_cast<int32_t>(1234567));
  EXPECT_EQ("disk holds 1,234,567 bytes.",
            catalog->getLocalizedMessage(*message("MSG_TEST_SIZE", size)));
}

TEST(IcuMessage, BytesOfTextUndoesTextOfBytes) {
  std::string every;
  for (int b = 0; b < 256; ++b) {
    every += static_cast<char>(b);
  }
  for (const std::string& bytes : {every, kToolBytes, std::string(), std::string("plain")}) {
    EXPECT_EQ(bytes, CFiIcuMessage::bytesOfText(CFiIcuMessage::textOfBytes(bytes)));
  }
  // Valid UTF-8 is read as text, not escaped.
  EXPECT_EQ(icu::UnicodeString::fromUTF8("\xc3\xa9t\xc3\xa9"),
            CFiIcuMessage::textOfBytes("\xc3\xa9t\xc3\xa9"));
  EXPECT_EQ(1, CFiIcuMessage::textOfBytes("\xff").length());
}

TEST(IcuMessage, SerializedByteArgumentsComeBackByteForByte) {
  icu::Formattable arg(CFiIcuMessage::textOfBytes(kToolBytes));
  CFiIcuMessage original("MSG_BYTES", &arg, 1, 3, "file", 1);
  CFiIcuMessage copy;
  ASSERT_TRUE(copy.deserialize(original.serialize()));
  EXPECT_EQ(kToolBytes, copy.argumentText(0));
}

TEST(IcuMessage, MalformedTextIsRejectedAndLeavesTheMessage) {
  icu::Formattable arg("kept");
  CFiIcuMessage msg("MSG_KEEP", &arg, 1, 3, "file", 1);
  EXPECT_FALSE(msg.deserialize(""));
  EXPECT_FALSE(msg.deserialize("QZFIMSG1|MSG|3|file|1|2|s:one"));
  EXPECT_FALSE(msg.deserialize("QZFIMSG1|MSG|x|file|1|0"));
  EXPECT_FALSE(msg.deserialize("QZFIMSG1|MSG|3|file|1|1|q:odd"));
  EXPECT_FALSE(msg.deserialize("OTHER|MSG|3|file|1|0"));
  EXPECT_FALSE(msg.deserialize("QZFIMSG1|MSG|3|file|1|0\\"));
  EXPECT_EQ("MSG_KEEP", msg.getIdentifier());
  EXPECT_EQ("kept", msg.argumentText(0));
}

}  // namespace
