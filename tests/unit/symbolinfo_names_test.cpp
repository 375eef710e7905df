// Scope names and information strings, from C++.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pysource/symbolinfo.h"

namespace pysource {
namespace {

TEST(Kinds, DefinitionsAndClasses) {
  for (int byte = 0; byte < 256; ++byte) {
    const auto kind = static_cast<unsigned char>(byte);
    const bool is_def = kind == 'F' || kind == 'm' || kind == 'M';
    EXPECT_EQ(IsDefKind(kind), is_def);
    EXPECT_EQ(IsDefOrClassKind(kind), is_def || kind == 'C');
  }
}

TEST(Kinds, OfAPart) {
  EXPECT_EQ(GetInfoBytesKind(":mC.f 3"), kMethodKind);
  EXPECT_EQ(GetInfoBytesKind(":"), kPlainEquivKind);
  EXPECT_EQ(GetInfoBytesKind(""), kPlainEquivKind);
  EXPECT_EQ(GetInfoBytesKind("x:m"), kPlainEquivKind);
}

TEST(Kinds, Filter) {
  CKindFilter filter;
  EXPECT_FALSE(filter.KindMatches(255));
  filter.Add(255);
  EXPECT_TRUE(filter.KindMatches(255));
  filter.Clear();
  EXPECT_FALSE(filter.KindMatches(255));
}

TEST(Nesting, AtTheEndPosition) {
  EXPECT_EQ(NextNonNestedUtf8PtrIndex("abc", 1, 1), -1);
  EXPECT_EQ(NextNonNestedUtf8PtrIndex(nullptr, 0, 0), -1);
}

TEST(Nesting, NothingBehindTheEndPositionIsRead) {
  // The literal and the group are closed behind the end position only.
  EXPECT_EQ(NextNonNestedUtf8PtrIndex("'ab'", 0, 3), 3);
  EXPECT_EQ(NextNonNestedUtf8PtrIndex("(ab)", 0, 3), 3);
  EXPECT_EQ(NextNonNestedUtf8PtrIndex("'''a'''", 0, 2), 2);
  const std::vector<char> alone = {'('};
  EXPECT_EQ(NextNonNestedUtf8PtrIndex(alone.data(), 0, 1), 1);
}

TEST(Nesting, ThePrefixDecidesHowALiteralIsRead) {
  EXPECT_EQ(NextNonNestedUtf8PtrIndex("f'{'}'}'b", 1, 9), 8);
  EXPECT_EQ(NextNonNestedUtf8PtrIndex("_'{'}'}'b", 1, 9), 4);
}

std::vector<std::string> Parts(std::string_view text, std::string_view separator) {
  std::vector<std::string> parts;
  ForEachNonNestedPart(text, separator, [&](std::string_view part) { parts.emplace_back(part); });
  return parts;
}

TEST(Information, Parts) {
  EXPECT_EQ(Parts("", ";"), std::vector<std::string>({""}));
  EXPECT_EQ(Parts("a;f(b;c);';'", ";"), std::vector<std::string>({"a", "f(b;c)", "';'"}));
  EXPECT_EQ(Parts("a, b,", ", "), std::vector<std::string>({"a", "b,"}));
  EXPECT_EQ(Parts("a;", ";"), std::vector<std::string>({"a", ""}));
}

TEST(Information, Contains) {
  EXPECT_TRUE(InfoContains("x;:mC.f 3", kMethodPrefix));
  EXPECT_FALSE(InfoContains("x(;:mC.f 3)", kMethodPrefix));
  EXPECT_TRUE(InfoContains("x", kPlainEquivSpec));
  EXPECT_FALSE(InfoContains(":ios", kPlainEquivSpec));
}

TEST(Information, Definitions) {
  const auto info = UnpackDefInfo(":CA.B 3 (Base)");
  ASSERT_TRUE(info.has_value());
  EXPECT_EQ(info->kind, kClassKind);
  EXPECT_EQ(info->scope_name, "A.B");
  EXPECT_EQ(info->line, 3);
  EXPECT_EQ(info->bases, "(Base)");
  EXPECT_FALSE(UnpackDefInfo(":m").has_value());
  EXPECT_FALSE(UnpackDefInfo(":mC.f x").has_value());
}

TEST(ScopeNames, ParentAndLeaf) {
  using Pair = std::pair<std::string_view, std::string_view>;
  EXPECT_EQ(ParentAndLeafScopeNames("D[a.b].get"), Pair("D[a.b]", "get"));
  EXPECT_EQ(ParentAndLeafScopeNames("..a.b"), Pair("..a", "b"));
  EXPECT_EQ(ParentAndLeafScopeNames("..a"), Pair("..", "a"));
  EXPECT_EQ(ParentScopeName(""), "");
}

TEST(ScopeNames, InstancesAndClassesAreInverses) {
  for (const std::string name : {"C", "C#2[int]", "a.B()", "(", ".", "*"}) {
    const auto instance = GetInstanceNameForClass(name);
    ASSERT_TRUE(instance.has_value());
    EXPECT_TRUE(IsInstanceScope(*instance));
    EXPECT_EQ(GetClassForInstanceName(*instance), name);
  }
  EXPECT_FALSE(GetInstanceNameForClass("").has_value());
  EXPECT_FALSE(IsInstanceScope("()"));
}

TEST(ScopeNames, DefLines) {
  EXPECT_TRUE(IsDefLineScope("f.<def>"));
  EXPECT_FALSE(IsDefLineScope("<def>"));
  EXPECT_TRUE(IsParentOfDefLineScope("f", "f.<def>"));
  EXPECT_TRUE(IsParentOfDefLineScope("abc", "123456789"));
  EXPECT_TRUE(IsTopLevelModuleScope(""));
  EXPECT_FALSE(IsTopLevelModuleScope(kWildcardScope));
}

}  // namespace
}  // namespace pysource
