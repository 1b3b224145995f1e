#include "LoadedLibraries.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

TEST(LinkText, Values_MayHoldColons) {
  EXPECT_THAT(ParseLinkText("mid=abc:longaddr=host:8883,other:1:link=up:empty=:last=x=y:z"),
              ElementsAre(Pair("empty", ""), Pair("last", "x=y:z"), Pair("link", "up"),
                          Pair("longaddr", "host:8883,other:1"), Pair("mid", "abc")));
}

TEST(LinkText, WhatIsNoPair_IsLeftOut) {
  EXPECT_THAT(ParseLinkText(""), IsEmpty());
  EXPECT_THAT(ParseLinkText("::: no pair"), IsEmpty());
  EXPECT_THAT(ParseLinkText("=x"), IsEmpty());
  EXPECT_THAT(ParseLinkText("=x:a=1"), ElementsAre(Pair("a", "1")));
}

TEST(LoadedLibraries, ThatAreNotLoaded_SayNothing) {
  EXPECT_THAT(ReadCloudLink(), IsEmpty());
  EXPECT_EQ(ReadMachineId(), "");
}

}  // namespace
