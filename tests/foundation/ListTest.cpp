#include <gtest/gtest.h>

#include <cstdlib>

#include "foundation/List.h"

namespace {

int items[20];

// The list's elements as indexes into items[], for readable expectations.
std::vector<int> contents(const List& list) {
  std::vector<int> out;
  for (ListIterator it = list.iterator(); it.hasNext();) {
    out.push_back(static_cast<int>(static_cast<int*>(it.next()) - items));
  }
  return out;
}

TEST(List, InsertAtEveryKindOfIndex) {
  struct Case {
    const char* name;
    int index;
    std::vector<int> expected;
  };
  const Case cases[] = {
      {"negative index changes nothing", -1, {0, 1, 2}},
      {"index 0 shifts everything up", 0, {9, 0, 1, 2}},
      {"index inside shifts the tail", 2, {0, 1, 9, 2}},
      {"index == count appends", 3, {0, 1, 2, 9}},
      {"index past count appends", 8, {0, 1, 2, 9}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    List list;
    for (int i = 0; i < 3; ++i) {
      list.add(&items[i]);
    }
    list.insert(c.index, &items[9]);
    EXPECT_EQ(contents(list), c.expected);
  }
}

TEST(List, RemoveOutsideTheBoundsLeavesTheListAlone) {
  List list;
  for (int i = 0; i < 3; ++i) {
    list.add(&items[i]);
  }
  EXPECT_EQ(list.remove(3), nullptr);
  EXPECT_EQ(list.remove(-1), nullptr);
  EXPECT_EQ(contents(list), (std::vector<int>{0, 1, 2}));
  EXPECT_EQ(list.remove(1), &items[1]);
  EXPECT_EQ(contents(list), (std::vector<int>{0, 2}));
  EXPECT_EQ(list.remove(1), &items[2]);
  EXPECT_EQ(list.remove(0), &items[0]);
  EXPECT_EQ(list.getCount(), 0);
  EXPECT_EQ(list.remove(0), nullptr);
}

TEST(List, GrowsPastManyMultiplesOfItsStep) {
  List list;
  for (int round = 0; round < 3; ++round) {
    for (int i = 0; i < 20; ++i) {
      list.insert(0, &items[i]);
    }
  }
  ASSERT_EQ(list.getCount(), 60);
  EXPECT_EQ(list.get(0), &items[19]);
  EXPECT_EQ(list.get(59), &items[0]);
}

TEST(List, FindByIdentityOrComparator) {
  List list;
  char a[] = "alpha";
  char b[] = "beta";
  char b2[] = "beta";
  list.add(a);
  list.add(b);
  EXPECT_EQ(list.find(b), 1);
  EXPECT_EQ(list.find(b2), -1) << "without comparator only the same pointer matches";
  auto byText = [](const void* element, const void* item) {
    return strcmp(static_cast<const char*>(element), static_cast<const char*>(item));
  };
  EXPECT_EQ(list.find(b2, byText), 1);
  EXPECT_EQ(list.find("gamma", byText), -1);
}

TEST(List, StackUseAtTheEnd) {
  List list;
  EXPECT_EQ(list.peek(), nullptr);
  EXPECT_EQ(list.pop(), nullptr);
  list.add(&items[0]);
  list.add(&items[1]);
  EXPECT_EQ(list.peek(), &items[1]);
  EXPECT_EQ(list.pop(), &items[1]);
  EXPECT_EQ(list.pop(), &items[0]);
  EXPECT_EQ(list.pop(), nullptr);
}

TEST(List, ToArrayEndsWithNullAndCopyShareElements) {
  List list;
  void** empty = list.toArray();
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(empty[0], nullptr);
  free(empty);

  for (int i = 0; i < 12; ++i) {
    list.add(&items[i]);
  }
  void** array = list.toArray();
  ASSERT_NE(array, nullptr);
  EXPECT_EQ(array[11], &items[11]);
  EXPECT_EQ(array[12], nullptr);
  free(array);

  List copy(&list);
  EXPECT_EQ(contents(copy), contents(list));
  copy.add(&items[19]);
  EXPECT_EQ(list.getCount(), 12) << "the copy has its own array";

  list.clear();
  EXPECT_EQ(list.getCount(), 0);
  list.add(&items[5]);
  EXPECT_EQ(contents(list), (std::vector<int>{5}));
}

struct Node : ListElement {
  explicit Node(int v) : value(v) {}
  int value;
};

TEST(ListCursor, EmptyChainHasNoCurrentElementAtOnce) {
  ListCursor cursor(nullptr);
  EXPECT_FALSE(cursor.hasMoreElements());
  EXPECT_EQ(cursor.getCurrentElement(), nullptr);
  EXPECT_FALSE(cursor.setToNext());
}

TEST(ListCursor, WalksTheChainAndRestarts) {
  Node a(1), b(2), c(3);
  a.setNextElement(&b);
  b.setPrevElement(&a);
  b.setNextElement(&c);
  c.setPrevElement(&b);

  ListCursor cursor(&a);
  std::vector<int> seen;
  for (; cursor.hasMoreElements(); cursor.setToNext()) {
    seen.push_back(static_cast<Node*>(cursor.getCurrentElement())->value);
  }
  EXPECT_EQ(seen, (std::vector<int>{1, 2, 3}));
  EXPECT_FALSE(cursor.setToNext()) << "past the end stays past the end";

  ListCursor copy = cursor;
  copy.setToFirst();
  EXPECT_EQ(copy.getCurrentElement(), &a);
  EXPECT_TRUE(copy.setToNext());
  EXPECT_EQ(copy.getCurrentElement(), &b);
  EXPECT_EQ(cursor.getCurrentElement(), nullptr) << "copies move independently";
}

}  // namespace
