// The framework's C helpers: object ids, buffers, provider lists and the
// bounded string functions.
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "qzfi/records.h"

namespace {

TEST(Records, AllocatedBufferIsZeroed) {
  const size_t size = 8192;
  auto* buf = static_cast<unsigned char*>(qzfi_alloc_buf(size));
  ASSERT_NE(buf, nullptr);
  for (size_t i = 0; i < size; ++i) {
    ASSERT_EQ(buf[i], 0) << "byte " << i;
  }
  qzfi_free_buf(buf, size);
}

TEST(Records, ZeroSizedBufferIsStillAPointer) {
  void* buf = qzfi_alloc_buf(0);
  EXPECT_NE(buf, nullptr);
  qzfi_free_buf(buf, 0);
}

TEST(Records, ObjectIdHoldsNameKindAndLength) {
  const char* name = "/dev/qz/dsk/dg1/vol1";
  qzfi_objid* id =
      qzfi_get_objid(name, static_cast<int>(std::strlen(name)) + 1, QZFI_OBJID_INTERNAL);
  ASSERT_NE(id, nullptr);
  EXPECT_STREQ(id->name, name);
  EXPECT_NE(id->name, name);
  EXPECT_EQ(id->kind, QZFI_OBJID_INTERNAL);
  EXPECT_EQ(id->len, static_cast<int32_t>(std::strlen(name)) + 1);
  qzfi_free_objid(id);
}

TEST(Records, ObjectIdNameIsBoundedByTheLength) {
  qzfi_objid* id = qzfi_get_objid("/dev/qz/dsk/dg1/vol1", 5, QZFI_OBJID_SUBOBJ);
  ASSERT_NE(id, nullptr);
  EXPECT_STREQ(id->name, "/dev");
  EXPECT_EQ(id->len, 5);
  qzfi_free_objid(id);
}

TEST(Records, ObjectIdOfNoNameIsNull) {
  EXPECT_EQ(qzfi_get_objid(nullptr, 1, QZFI_OBJID_SNAPSHOT), nullptr);
  qzfi_free_objid(nullptr);
}

TEST(Records, ProviderListAppendsCopiesInOrder) {
  char first[] = "qzvol";
  char second[] = "qzvset";
  char* names[] = {first, second};
  qfi_provider_list* list = nullptr;
  ASSERT_EQ(qzfi_build_providerlist_node(&list, "qzvmfi", names, 2), QFI_SUCCESS);
  ASSERT_EQ(qzfi_build_providerlist_node(&list, "other", nullptr, 0), QFI_SUCCESS);
  first[0] = 'X';

  ASSERT_NE(list, nullptr);
  EXPECT_STREQ(list->provider, "qzvmfi");
  ASSERT_EQ(list->nnames, 2);
  EXPECT_STREQ(list->names[0], "qzvol");
  EXPECT_STREQ(list->names[1], "qzvset");
  ASSERT_NE(list->next, nullptr);
  EXPECT_STREQ(list->next->provider, "other");
  EXPECT_EQ(list->next->nnames, 0);
  EXPECT_EQ(list->next->next, nullptr);
  qzfi_free_providerlist(list);
}

TEST(Records, ProviderListRefusesMissingArguments) {
  qfi_provider_list* list = nullptr;
  EXPECT_EQ(qzfi_build_providerlist_node(nullptr, "p", nullptr, 0), QFI_E_INVALID);
  EXPECT_EQ(qzfi_build_providerlist_node(&list, nullptr, nullptr, 0), QFI_E_INVALID);
  EXPECT_EQ(qzfi_build_providerlist_node(&list, "p", nullptr, 1), QFI_E_INVALID);
  EXPECT_EQ(list, nullptr);
}

TEST(Records, StrlcpyTruncatesAndTerminates) {
  char dst[8];
  std::memset(dst, 'z', sizeof dst);
  EXPECT_EQ(V_strlcpy(dst, "0123456789", sizeof dst), 10u);
  EXPECT_STREQ(dst, "0123456");
  EXPECT_EQ(V_strlcpy(dst, "abc", sizeof dst), 3u);
  EXPECT_STREQ(dst, "abc");
}

TEST(Records, StrlcpyWithNoRoomWritesNothing) {
  char dst[2] = {'q', 'q'};
  EXPECT_EQ(V_strlcpy(dst, "abc", 0), 3u);
  EXPECT_EQ(dst[0], 'q');
  EXPECT_EQ(V_strlcpy(dst, "abc", 1), 3u);
  EXPECT_EQ(dst[0], '\0');
}

TEST(Records, StrlncpyTakesAtMostNCharacters) {
  char dst[16];
  EXPECT_EQ(V_strlncpy(dst, "abcdefgh", 3, sizeof dst), 3u);
  EXPECT_STREQ(dst, "abc");
  EXPECT_EQ(V_strlncpy(dst, "abcdefgh", 10, 5), 8u);
  EXPECT_STREQ(dst, "abcd");
  EXPECT_EQ(V_strlncpy(dst, "ab", 10, sizeof dst), 2u);
  EXPECT_STREQ(dst, "ab");
}

TEST(Records, StrlcatAppendsWithinTheSize) {
  char dst[8] = "abc";
  EXPECT_EQ(V_strlcat(dst, "de", sizeof dst), 5u);
  EXPECT_STREQ(dst, "abcde");
  EXPECT_EQ(V_strlcat(dst, "fghij", sizeof dst), 10u);
  EXPECT_STREQ(dst, "abcdefg");
}

TEST(Records, StrlcatLeavesAnUnterminatedBufferAlone) {
  char dst[4] = {'a', 'b', 'c', 'd'};
  EXPECT_EQ(V_strlcat(dst, "xy", sizeof dst), 6u);
  EXPECT_EQ(std::string(dst, 4), "abcd");
}

TEST(Records, SnprintfTruncatesAndTellsTheFullLength) {
  char dst[6];
  EXPECT_EQ(V_snprintf(dst, sizeof dst, "%s-%d", "disk", 42), 7);
  EXPECT_STREQ(dst, "disk-");
  EXPECT_EQ(V_snprintf(dst, sizeof dst, "%d", 7), 1);
  EXPECT_STREQ(dst, "7");
  EXPECT_EQ(V_snprintf(nullptr, 0, "%s", "abc"), 3);
}

TEST(Records, SscanfReadsWithinFieldWidths) {
  char word[5] = {};
  int number = 0;
  EXPECT_EQ(V_sscanf("sectors 1024", "%4s%*s %d", word, &number), 2);
  EXPECT_STREQ(word, "sect");
  EXPECT_EQ(number, 1024);
  EXPECT_EQ(V_sscanf("", "%d", &number), EOF);
  EXPECT_EQ(V_sscanf(nullptr, "%d", &number), EOF);
}

}  // namespace
