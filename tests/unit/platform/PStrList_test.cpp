#include "platform/text/PStrList.h"

#include <gtest/gtest.h>

namespace {

CPStrList ListOf(std::initializer_list<const char*> items) {
  CPStrList list;
  for (const char* psz : items)
    list.AddTail(psz);
  return list;
}

TEST(PStrList_test, FindData_StartsAtItsIndex) {
  const CPStrList list = ListOf({"a", "b", "a"});
  EXPECT_EQ(list.FindData("a", 0), 0);
  EXPECT_EQ(list.FindData("a", 1), 2);
  EXPECT_EQ(list.FindData("a", 3), -1);
  EXPECT_EQ(list.FindData("a", 99), -1);
  EXPECT_EQ(list.FindData("a", -5), 0);
}

TEST(PStrList_test, FindData_ComparesBytes) {
  const CPStrList list = ListOf({"MAC"});
  EXPECT_EQ(list.FindData("mac", 0), -1);
  EXPECT_EQ(CPStrList().FindData("", 0), -1);
}

TEST(PStrList_test, ToString_JoinsInOrder) {
  EXPECT_EQ(ListOf({"b", "", "a"}).ToString(", "), CPString("b, , a"));
  EXPECT_TRUE(CPStrList().ToString(",").IsEmpty());
  EXPECT_EQ(ListOf({"only"}).ToString(","), CPString("only"));
}

TEST(PStrList_test, List_KeepsOrderAndDuplicates) {
  CPStrList list = ListOf({"b", "a", "b"});
  EXPECT_EQ(list.GetCount(), 3u);
  EXPECT_EQ(list, ListOf({"b", "a", "b"}));
  EXPECT_FALSE(list == ListOf({"a", "b", "b"}));
  list.RemoveAll();
  EXPECT_TRUE(list.IsEmpty());
}

TEST(PStrList_test, Set_IsOrderedAndUnique) {
  CPStrSet set;
  set.Insert("b");
  set.Insert("a");
  set.Insert("b");
  EXPECT_EQ(set.GetCount(), 2u);
  EXPECT_EQ(set.ToString(","), CPString("a,b"));
  EXPECT_TRUE(set.Contains("a"));
  EXPECT_FALSE(set.Contains("A"));
}

TEST(PStrList_test, Set_EqualityIgnoresInsertOrder) {
  CPStrSet a;
  a.Insert("x");
  a.Insert("y");
  CPStrSet b;
  EXPECT_TRUE(b.IsEmpty());
  b.Insert("y");
  EXPECT_FALSE(a == b);
  b.Insert("x");
  EXPECT_TRUE(a == b);
}

}  // namespace
